#include "socket/non_lsp_socket.h"

#ifndef _WIN32
#include <netinet/in.h>
#include <sys/socket.h>
#endif

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "core/logging.h"

namespace zelsocket {

namespace {

constexpr int kDgram = 2;  // SOCK_DGRAM in the catalogue's numbering
constexpr int kUdp = 17;
constexpr int kTcp = 6;

const ProviderGuid kInetBase = {0xE70F1AA0, 0xAB8B, 0x11CF, {0x8C, 0xA3, 0x00, 0x80, 0x5F, 0x48, 0xA1, 0x92}};
const ProviderGuid kInet6Base = {0xF9EAB0C0, 0x26D4, 0x11D0, {0xBB, 0xBF, 0x00, 0xAA, 0x00, 0x6C, 0x34, 0xE4}};

bool SameGuid(const ProviderGuid& a, const ProviderGuid& b) {
  return a.Data1 == b.Data1 && a.Data2 == b.Data2 && a.Data3 == b.Data3 &&
         std::memcmp(a.Data4, b.Data4, sizeof a.Data4) == 0;
}

// Enumerates into a heap buffer, growing it to the length the platform asks
// for.  A platform that asks for no more than it was given would make this loop
// for ever, so that counts as a failure of the walk.  The caller frees `*buffer`.
template <typename Record, typename Enum>
int EnumerateCatalogue(INonLspPlatform& platform, EnumLength initial, Enum enumerate, Record** buffer,
                       EnumLength* capacity) {
  int protocols[] = {kTcp, kUdp, 0};
  EnumLength length = initial;
  *buffer = nullptr;
  for (;;) {
    std::free(*buffer);
    *buffer = static_cast<Record*>(std::calloc(1, length));
    if (!*buffer) return -1;
    EnumLength offered = length;
    int result = (platform.*enumerate)(protocols, *buffer, &length);
    *capacity = offered;
    if (result != -1 || platform.WSAGetLastError() != kEnumNoBuffers) return result;
    if (length <= offered) return -1;
  }
}

}  // namespace

const ProviderGuid* BaseProviderId(int af) {
  if (af == AF_INET) return &kInetBase;
  if (af == AF_INET6) return &kInet6Base;
  return nullptr;
}

NonLspSocketFactory::NonLspSocketFactory(INonLspPlatform& platform) : m_platform(platform) {}

NonLspSocketFactory::~NonLspSocketFactory() {
  for (Cell& cell : m_cells) delete cell.record;
}

NonLspSocketFactory::Cell* NonLspSocketFactory::_CellOf(int af) {
  if (af == AF_INET) return &m_cells[0];
  if (af == AF_INET6) return &m_cells[1];
  return nullptr;
}

std::wstring NonLspSocketFactory::_GuidText(const ProviderGuid& guid) {
  wchar_t text[64] = {0};
  m_platform.StringFromGUID2(guid, text, 64);
  text[63] = 0;
  return text;
}

SocketHandle NonLspSocketFactory::CreateNonLSPSocket(int af) {
  ProtocolInfoW* info = const_cast<ProtocolInfoW*>(_GetProviderInfo(af));
  SocketHandle s = m_platform.WSASocketW(af, kDgram, kUdp, info);
  if (s != kInvalidSocket) return s;
  LogInfo(tag::kNonLspSocket, "CreateNonLSPSocket, WSASocket fail, af=%d, type=%d, protocol=%d, info=0x%p, err=%d",
          af, kDgram, kUdp, static_cast<void*>(info), m_platform.WSAGetLastError());

  s = m_platform.Socket(af, kDgram, kUdp);
  if (s != kInvalidSocket) return s;
  LogInfo(tag::kNonLspSocket, "CreateNonLSPSocket, socket fail, af=%d, type=%d, protocol=%d, err=%d", af, kDgram,
          kUdp, m_platform.WSAGetLastError());

  s = m_platform.Socket(af, kDgram, 0);
  if (s != kInvalidSocket) return s;
  LogInfo(tag::kNonLspSocket, "CreateNonLSPSocket, socket fail, af=%d, type=%d, protocol=%d, err=%d", af, kDgram, 0,
          m_platform.WSAGetLastError());
  return kInvalidSocket;
}

const ProtocolInfoW* NonLspSocketFactory::_GetProviderInfo(int af) {
  Cell* cell = _CellOf(af);
  if (!cell) return nullptr;
  int state = cell->state.load(std::memory_order_acquire);
  if (state == kNotLookedUp) {
    // Held across the walk, so that each family is walked once however many
    // loops ask at the same moment.
    AutoMutexLock lock(m_providerLock);
    state = cell->state.load(std::memory_order_acquire);
    if (state == kNotLookedUp) {
      auto* record = new ProtocolInfoW();
      if (_GetBaseProviderInfo(af, kDgram, record)) {
        cell->record = record;
        cell->state.store(kFound, std::memory_order_release);
        state = kFound;
        LogInfo(tag::kNonLspSocket,
                "CreateNonLSPSocket, _GetBaseProviderInfo ok, af=%d, type=%d, protocol=%d, EntryId=%u, ChainLen=%d, "
                "Name=%S, Guid=%S",
                record->iAddressFamily, record->iSocketType, record->iProtocol,
                static_cast<unsigned>(record->dwCatalogEntryId), record->ProtocolChain.ChainLen,
                std::wstring(record->szProtocol, ::wcsnlen(record->szProtocol, 256)).c_str(),
                _GuidText(record->ProviderId).c_str());
      } else {
        delete record;
        cell->state.store(kFailed, std::memory_order_release);
        state = kFailed;
        std::string list = LogWSAProtocols();
        LogInfo(tag::kNonLspSocket,
                "CreateNonLSPSocket, _GetBaseProviderInfo fail, af=%d, type=%d, protocol=%d, Protocol List:\n%s\n", af,
                kDgram, kUdp, list.c_str());
      }
    }
  }
  return state == kFound ? cell->record : nullptr;
}

bool NonLspSocketFactory::_GetBaseProviderInfo(int af, int type, ProtocolInfoW* info) {
  const ProviderGuid* base = BaseProviderId(af);
  ProtocolInfoW* buffer = nullptr;
  EnumLength capacity = 0;
  int count = EnumerateCatalogue(m_platform, 8192, &INonLspPlatform::WSAEnumProtocolsW, &buffer, &capacity);
  bool found = false;
  if (count >= 1 && base) {
    // Never trust a count that would read past what was allocated.
    std::size_t n = std::min<std::size_t>(static_cast<std::size_t>(count), capacity / sizeof(ProtocolInfoW));
    for (std::size_t i = 0; i < n; ++i) {
      const ProtocolInfoW& entry = buffer[i];
      if (entry.iAddressFamily == af && entry.iSocketType == type && SameGuid(entry.ProviderId, *base)) {
        std::memcpy(info, &entry, sizeof entry);
        found = true;
        break;
      }
    }
  }
  std::free(buffer);
  return found;
}

std::string NonLspSocketFactory::LogWSAProtocols() {
  ProtocolInfoA* buffer = nullptr;
  EnumLength capacity = 0;
  int count = EnumerateCatalogue(m_platform, 4096, &INonLspPlatform::WSAEnumProtocolsA, &buffer, &capacity);
  std::string result;
  if (count < 0) {
    LogInfo(tag::kNonLspSocket, "LogWSAProtocols, WSAEnumProtocolsA fail, ret=%d, err=%d", count,
            m_platform.WSAGetLastError());
    std::free(buffer);
    return result;
  }
  std::size_t n = std::min<std::size_t>(static_cast<std::size_t>(count), capacity / sizeof(ProtocolInfoA));
  for (std::size_t i = 0; i < n; ++i) {
    const ProtocolInfoA& entry = buffer[i];
    char line[512];
    char name[257];
    std::memcpy(name, entry.szProtocol, 256);
    name[256] = 0;
    FormatToBuffer(line, sizeof line,
                   "EntryId=%d, Name=%s, ChainLen=%d, Version=%d, AF=%d, SockType=%d, Protocol=%d, Guid=%S\n",
                   static_cast<int>(entry.dwCatalogEntryId), name, entry.ProtocolChain.ChainLen, entry.iVersion,
                   entry.iAddressFamily, entry.iSocketType, entry.iProtocol, _GuidText(entry.ProviderId).c_str());
    result += line;
  }
  std::free(buffer);
  return result;
}

SocketHandle CreateNonLSPSocket(int af) {
  // Never destroyed: loop threads may still create sockets while the process ends.
  static NonLspSocketFactory* factory = new NonLspSocketFactory(NativeNonLspPlatform());
  return factory->CreateNonLSPSocket(af);
}

}  // namespace zelsocket
