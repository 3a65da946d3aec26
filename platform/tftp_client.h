/* TFTP client (RFC 1350, with the options of RFC 2347, 2348, 2349 and 7440). A process has one
 * connection; used in the forked worker. Each operation returns 0 or more on success. Errors are
 * negative: -c for the protocol's error code c (1..99; RFC 1350, appendix; RFC 2347 for 8), and
 * -(100 + n) for the errno value n. */
#ifndef PLATFORM_TFTP_CLIENT_H
#define PLATFORM_TFTP_CLIENT_H

#ifdef __cplusplus
extern "C" {
#endif

/* How long the client waits for a silent server, in seconds (1..255), before it gives up with
 * ETIMEDOUT. */
int tftp_timeout_set(int seconds);

/* Sets the server, an IPv4 or IPv6 address in text form. `port` is a UDP port, or -1 for 69. Sends
 * nothing yet. */
int tftp_connect(const char *server, int port);

/* Copies the local file to the server under the remote name, in octet mode. `flags` is always 0. */
int tftp_put2(const char *local, const char *remote, int flags);

/* Copies the remote file into the local file, replacing it. On failure no partial local file
 * remains. `flags` is always 0. */
int tftp_get2(const char *remote, const char *local, int flags);

/* The text of an error; never null, valid until the next call. */
const char *tftp_strerror(int error);

#ifdef __cplusplus
}
#endif
#endif
