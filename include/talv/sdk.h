/* Platform SDK: the device's identity and time zone. */
#pragma once

#include "talv/tlibc.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Writes the device's serial number into `buffer` (cut at size-1 bytes).
 * Returns 0, or a negative number with the error state set. */
int TLIBGetSerialNumber(char* buffer, int size);

/* Writes the name of the device's configured time zone into `zone`. Returns 0,
 * or a negative number with the error state set and, when the buffer was too
 * small, the size needed in *sizeNeeded. */
int TALVZoneGet(char* zone, int size, int* sizeNeeded);

/* Fills *ppInfo with information on the zone, among it "nameInTZDB". Returns
 * a number greater than 0 on success, 0 or less on failure (error state set). */
int TALVZoneGetInfo(const char* zone, TLIBC_SZHASH** ppInfo);

#ifdef __cplusplus
}
#endif
