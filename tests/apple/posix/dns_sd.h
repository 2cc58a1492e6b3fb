#pragma once

// Declarations of dns_sd.h, written for this project from its documentation: the names that src/platform/macos uses and
// no others. The library of that name for Linux has the same ones; the program built with it is compiled against its
// header.

#include <stdint.h>

#define DNSSD_API

typedef struct _DNSServiceRef_t* DNSServiceRef;
typedef uint32_t DNSServiceFlags;
typedef int32_t DNSServiceErrorType;

enum {
  kDNSServiceErr_NoError = 0,
  kDNSServiceErr_Unknown = -65537,
  kDNSServiceErr_BadParam = -65540,
  kDNSServiceErr_Invalid = -65549,
  kDNSServiceErr_NoAuth = -65555,
  kDNSServiceErr_ServiceNotRunning = -65563
};

enum { kDNSServiceFlagsAdd = 0x2 };
enum { kDNSServiceInterfaceIndexAny = 0 };
enum { kDNSServiceClass_IN = 1 };
enum { kDNSServiceType_A = 1, kDNSServiceType_AAAA = 28 };

typedef union _TXTRecordRef_t {
  char PrivateData[16];
  char* ForceNaturalAlignment;
} TXTRecordRef;

typedef void(DNSSD_API* DNSServiceRegisterReply)(DNSServiceRef service, DNSServiceFlags flags,
                                                 DNSServiceErrorType error, const char* name, const char* type,
                                                 const char* domain, void* context);
typedef void(DNSSD_API* DNSServiceBrowseReply)(DNSServiceRef service, DNSServiceFlags flags, uint32_t interfaceIndex,
                                               DNSServiceErrorType error, const char* name, const char* type,
                                               const char* domain, void* context);
typedef void(DNSSD_API* DNSServiceResolveReply)(DNSServiceRef service, DNSServiceFlags flags, uint32_t interfaceIndex,
                                                DNSServiceErrorType error, const char* fullName, const char* host,
                                                uint16_t port, uint16_t textSize, const unsigned char* text,
                                                void* context);
typedef void(DNSSD_API* DNSServiceQueryRecordReply)(DNSServiceRef service, DNSServiceFlags flags,
                                                    uint32_t interfaceIndex, DNSServiceErrorType error,
                                                    const char* fullName, uint16_t recordType, uint16_t recordClass,
                                                    uint16_t dataSize, const void* data, uint32_t ttl, void* context);

#ifdef __cplusplus
extern "C" {
#endif

int DNSSD_API DNSServiceRefSockFD(DNSServiceRef service);
DNSServiceErrorType DNSSD_API DNSServiceProcessResult(DNSServiceRef service);
void DNSSD_API DNSServiceRefDeallocate(DNSServiceRef service);

// Ports and the ports that replies give are in network order.
DNSServiceErrorType DNSSD_API DNSServiceRegister(DNSServiceRef* service, DNSServiceFlags flags, uint32_t interfaceIndex,
                                                 const char* name, const char* type, const char* domain,
                                                 const char* host, uint16_t port, uint16_t textSize, const void* text,
                                                 DNSServiceRegisterReply reply, void* context);
DNSServiceErrorType DNSSD_API DNSServiceBrowse(DNSServiceRef* service, DNSServiceFlags flags, uint32_t interfaceIndex,
                                               const char* type, const char* domain, DNSServiceBrowseReply reply,
                                               void* context);
DNSServiceErrorType DNSSD_API DNSServiceResolve(DNSServiceRef* service, DNSServiceFlags flags, uint32_t interfaceIndex,
                                                const char* name, const char* type, const char* domain,
                                                DNSServiceResolveReply reply, void* context);
DNSServiceErrorType DNSSD_API DNSServiceQueryRecord(DNSServiceRef* service, DNSServiceFlags flags,
                                                    uint32_t interfaceIndex, const char* fullName, uint16_t recordType,
                                                    uint16_t recordClass, DNSServiceQueryRecordReply reply,
                                                    void* context);

void DNSSD_API TXTRecordCreate(TXTRecordRef* record, uint16_t bufferSize, void* buffer);
void DNSSD_API TXTRecordDeallocate(TXTRecordRef* record);
DNSServiceErrorType DNSSD_API TXTRecordSetValue(TXTRecordRef* record, const char* key, uint8_t valueSize,
                                                const void* value);
uint16_t DNSSD_API TXTRecordGetLength(const TXTRecordRef* record);
const void* DNSSD_API TXTRecordGetBytesPtr(const TXTRecordRef* record);
const void* DNSSD_API TXTRecordGetValuePtr(uint16_t textSize, const void* text, const char* key, uint8_t* valueSize);

#ifdef __cplusplus
}
#endif
