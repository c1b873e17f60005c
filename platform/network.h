// Network interfaces and addresses.

#ifndef TARN_PLATFORM_NETWORK_H
#define TARN_PLATFORM_NETWORK_H

#ifdef __cplusplus
extern "C" {
#endif

// A record begins with the NUL-terminated interface name; the rest is the platform's.
typedef struct TLIBNETIF {
  char name[16];
  unsigned int index;
  unsigned int flags;
} TLIBNETIF;

// Fills at most `capacity` records of the interfaces that the firewall handles (kind 8) and answers
// their number; negative with the platform error set when they cannot be listed.
int TLIBNetGetInterfaceInfo(TLIBNETIF* table, int capacity, int kind);

// Writes the name of the PPPoE link's interface (`size` bytes, NUL included). Negative when there
// is no such link.
int TARNPPPoeIntfGet(char* buffer, int size);

// Non-zero when `text` is an IPv4 address in dotted form.
int BlTLIBIsIpAddr(const char* text);

// Non-zero when `text` is an IPv6 address, without a zone.
int BlTLIBIsv6IpAddrValid(const char* text);

#ifdef __cplusplus
}
#endif

#endif
