// Public header: send schedules and connect options of a channel.
#ifndef ZELSOCKET_CHANNEL_OPTION_H
#define ZELSOCKET_CHANNEL_OPTION_H

#include "zelsocket/export.h"
#include "zelsocket/ip_address.h"
#include "zelsocket/ref_count.h"

namespace zelsocket {

// A send schedule: how often a packet is transmitted and how long the channel
// waits after each transmission.  Interval i (from 0) is the wait after
// transmission i; after the last interval the packet times out.  Counted, because
// every pending packet holds on to its schedule.  No lock: finish the schedule
// before handing it to IChannel::Send, and do not change it while packets use it.
class ZELSOCKET_API IChannelSendOption : public IRefCount {
 public:
  // Back to the empty state: packet-per-send 0, no interval (storage kept).
  virtual void Reset() = 0;
  // True once packet-per-send is set and there is at least one interval.
  virtual bool IsValid() const = 0;
  // Appends 3000, 5000 and 7000 ms with packet-per-send 1; adds to an existing
  // schedule (Reset first to replace it).
  virtual void SetDefaultForUdp() = 0;
  // Appends one interval of 1 ms with packet-per-send 1.
  virtual void SetDefaultForTcp() = 0;
  // Stored and copied only: the sender transmits one datagram per due entry.
  virtual int GetPacketPerSend() const = 0;
  // Values below 1 store 1.
  virtual void SetPacketPerSend(int count) = 0;
  // Appends the value as given, unchecked.
  virtual void AddSendInterval(int milliseconds) = 0;
  // Number of intervals, which is also the number of transmissions of a packet.
  virtual int GetSendCount() const = 0;
  // Throws std::out_of_range("invalid vector<T> subscript") for an index that
  // is negative or not below GetSendCount().
  virtual int GetSendInterval(int index) const = 0;
  // Replaces target's schedule with a copy of this one; null does nothing.
  virtual void CopyTo(IChannelSendOption* target) const = 0;
};

// Makes an empty schedule; the caller owns the one reference.  False for null.
ZELSOCKET_API bool CreateChannelSendOption(IChannelSendOption** out);
ZELSOCKET_API bool CreateChannelSendOption(RefPtr<IChannelSendOption>& out);

// Value wrapper owning one schedule object.
class ZELSOCKET_API ChannelSendOption {
 public:
  ChannelSendOption();
  // A new object of its own, with a copy of other's schedule.
  ChannelSendOption(const ChannelSendOption& other);
  ~ChannelSendOption();
  // Copies other's schedule into this wrapper's own object; the two stay
  // separate objects.
  ChannelSendOption& operator=(const ChannelSendOption& other);

  operator IChannelSendOption*() const;  // NOLINT(google-explicit-constructor): no AddRef

  void Reset();
  bool IsValid() const;
  void SetDefaultForUdp();
  void SetDefaultForTcp();
  int GetPacketPerSend() const;
  void SetPacketPerSend(int count);
  void AddSendInterval(int milliseconds);
  int GetSendCount() const;
  int GetSendInterval(int index) const;

 private:
  IChannelSendOption* _option;
};

// Proxy settings.  Part of the interface only: nothing in the library reads
// them, and a filled Proxy changes nothing about a connection.
struct ZELSOCKET_API Proxy {
  Proxy();
  Proxy(const Proxy& other) = default;
  Proxy& operator=(const Proxy& other);
  Proxy& operator=(Proxy&& other);

  int kind;
  char host[256];
  unsigned short port;
  char text1[256];
  char text2[256];
  char text3[256];
};

// How IChannel::Connect binds its local socket.  Fields named optionN and
// `proxy` are carried along and read by nothing.
struct ZELSOCKET_API ChannelConnectOption {
  ChannelConnectOption();
  ChannelConnectOption(const ChannelConnectOption& other);
  ChannelConnectOption(ChannelConnectOption&& other);
  ~ChannelConnectOption();
  ChannelConnectOption& operator=(const ChannelConnectOption& other);
  ChannelConnectOption& operator=(ChannelConnectOption&& other);

  int option0;
  IPAddress bindAddress;        // local address of the socket; default Any
  unsigned short bindPortMin;   // first local port tried (0: any free port)
  unsigned short bindPortMax;   // last local port tried; below min: min only
  unsigned char option1;
  unsigned char nonLspSocket;   // create the socket past layered providers (Windows)
  Proxy proxy;
  unsigned char option2;
  int option3;
  int option4;
  unsigned char option5;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_CHANNEL_OPTION_H
