/* What kind of switch this is, and its VRFs. */
#ifndef PLATFORM_CHASSIS_H
#define PLATFORM_CHASSIS_H

#ifdef __cplusplus
extern "C" {
#endif

/* Stores the chassis type number. Returns 0, or non-zero when it is not known; *type is then
 * unchanged. */
int hwinfo_get_chassis_type(int *type);

/* The number of a VRF, stable while the switch runs, or a negative value when there is no VRF of
 * that name. */
int vrfdir_get_context_id(const char *vrf_name);

#ifdef __cplusplus
}
#endif
#endif
