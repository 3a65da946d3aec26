/* The type of this switch, and its VRFs. */
#ifndef PLATFORM_CHASSIS_H
#define PLATFORM_CHASSIS_H

#ifdef __cplusplus
extern "C" {
#endif

/* Stores the number of the chassis type. Returns 0, or non-zero with *type unchanged if the type is
 * not known. */
int hwinfo_get_chassis_type(int *type);

/* The number of the VRF, stable while the switch runs, or a negative value if there is no VRF of
 * that name. */
int vrfdir_get_context_id(const char *vrf_name);

#ifdef __cplusplus
}
#endif
#endif
