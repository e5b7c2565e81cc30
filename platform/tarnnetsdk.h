/* Network library of the operating system: interfaces and addresses. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* One interface; 132 bytes. Only the name is documented. */
typedef struct TLIBNET_INTERFACE {
    char name[16];
    char reserved[116];
} TLIBNET_INTERFACE;

/* Fills `table` with at most `capacity` interfaces; the library passes the selector 8.
 * Returns how many were filled, or a negative error, which is also put into the error state. */
int TLIBNetGetInterfaceInfo(TLIBNET_INTERFACE* table, int capacity, int selector, int* extra);

/* Writes the PPPoE interface's name ("ppp0") into `name` of `size` bytes. Negative without one. */
int TARNPPPoeIntfGet(char* name, int size);

/* Non-zero when `text` is an IPv4 address in dotted form. */
int BlTLIBIsIpAddr(const char* text);

/* Non-zero when `text` is an IPv6 address. */
int BlTLIBIsv6IpAddrValid(const char* text);

#ifdef __cplusplus
}

static_assert(sizeof(TLIBNET_INTERFACE) == 132, "the platform fills records of 132 bytes");
#endif
