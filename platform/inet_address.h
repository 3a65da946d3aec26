/* Internet addresses in the platform's format. */
#ifndef PLATFORM_INET_ADDRESS_H
#define PLATFORM_INET_ADDRESS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* InetAddressType of INET-ADDRESS-MIB (RFC 4001). */
enum inet_address_type { INET_ADDRESS_UNKNOWN = 0, INET_ADDRESS_IPV4 = 1, INET_ADDRESS_IPV6 = 2 };

struct inet_address {
    uint32_t type;      /* enum inet_address_type */
    uint8_t octets[16]; /* network order; an IPv4 address is the first four */
};

/* Reads an IPv4 address in dotted decimal or an IPv6 address (RFC 4291). Returns 0 and fills the
 * whole address, with 0 in the octets that an IPv4 address does not use; or returns an errno value
 * and leaves it unchanged. */
int ip_addr_from_str(const char *text, struct inet_address *address);

/* Writes the address as text with a terminator. Returns 0, EAFNOSUPPORT for another type of
 * address, or ENOSPC if it takes more than `size` octets. */
int ip_addr_to_str(const struct inet_address *address, char *text, size_t size);

#ifdef __cplusplus
}
#endif
#endif
