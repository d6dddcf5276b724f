/* Cloud-service library: the device token that goes with every request to the
 * vendor's services. Tokens are up to 32 characters. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Writes the device's own serial and its token. Returns 0, or a negative
 * number with the error state set. */
int TALVCloudServiceQbtokenGetToken(char* serial, int serialSize, char* token, int tokenSize);

/* Writes the token for `serial`. Returns 0, or a negative number with the
 * error state set. */
int TALVCloudServiceQbtokenGenerateToken(const char* serial, char* token, int tokenSize);

#ifdef __cplusplus
}
#endif
