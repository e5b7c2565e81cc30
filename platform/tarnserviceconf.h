/* Service catalogue of the operating system: which ports each system service uses. */
#pragma once

#include <stddef.h>

#include "tarncore.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One service. Protocols: 1 TCP, 2 UDP, 3 both, 4 ICMP, 32 IGMP. Each port list holds texts such
 * as "80" or "6000-6010" and may be NULL. */
typedef struct TARNFW_SERVICE {
    char name[256];
    char title[256]; /* empty: the service is unusable for the firewall */
    char reserved[1160];
    int dstProtocol;
    PTLIBCSZLIST dstPorts;
    int srcProtocol;
    PTLIBCSZLIST srcPorts;
} TARNFW_SERVICE;

typedef struct TARNFW_SERVICE_LIST TARNFW_SERVICE_LIST;

/* Loads the catalogue into `*list`, to be released with TARNFwServiceFree.
 * Returns the number of services; 0 or less is a failure. */
int TARNFwServiceEnum(TARNFW_SERVICE_LIST** list);

/* The record of a service, owned by the list; NULL when there is none. */
const TARNFW_SERVICE* TARNFWServiceFind(const TARNFW_SERVICE_LIST* list, const char* name);

/* Releases a catalogue; NULL is allowed. */
void TARNFwServiceFree(TARNFW_SERVICE_LIST* list);

#ifdef __cplusplus
}

static_assert(offsetof(TARNFW_SERVICE, title) == 256, "the usability flag lies at byte 256");
static_assert(offsetof(TARNFW_SERVICE, dstProtocol) == 1672, "the protocol lies at byte 1672");
#endif
