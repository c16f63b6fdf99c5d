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

// How a learning schedule (CreateAdaptiveSendOption) starts and where it stops.
// Times in milliseconds; a value out of range is raised or lowered to the
// nearest sensible one (every time at least 1, the maximum at least the
// minimum, at least one transmission).
struct AdaptiveSendConfig {
  // The wait after each transmission until the first answer has been timed.
  int initialTimeoutMs = 1000;
  // Bounds of the wait, whatever the estimate and the backoff say.
  int minTimeoutMs = 1;
  int maxTimeoutMs = 10000;
  // Transmissions of one packet at most; GetSendCount() returns it.
  int sendCount = 10;
  // A packet times out this long after it was accepted at the latest, even if
  // transmissions are left: the last wait is cut short to end there.
  int deadlineMs = 15000;
};

// A send schedule that learns the round-trip time from the packets that use
// it.  A packet that IChannel::CancelSend ends after exactly one transmission
// gives a sample: the time from that transmission to the cancel.  A packet
// transmitted more than once gives none, since its answer may belong to any of
// its transmissions (Karn's rule).  From the samples it keeps the smoothed
// round trip SRTT and its variation RTTVAR with the gains of RFC 6298 (1/8 and
// 1/4), and waits RTO = SRTT + max(1 ms, 4 * RTTVAR) after every transmission,
// the initial timeout before the first sample, within [min, max], rounded to
// the nearest whole millisecond (the grain of the loop's timers).
//
// Backoff: the wait of one packet does not grow from one retransmission to the
// next, so a link that merely loses packets keeps its short tail.  The wait of
// all packets doubles when losses persist across packets: for every run of
// unanswered first transmissions as long as the loss rate measured before the
// run would produce less than once in a thousand runs (2 packets on a clean
// link, 5 at 19% loss, 10 at 50%, at most 16), and for each packet that times
// out.  The first timed answer after that returns to the plain RTO.
//
// Share one object among all packets to one peer: it learns across them, from
// channels on any loops (its state has a lock of its own, under which no
// application code runs).  An application that cancels each answered packet,
// as every application of the channel does, needs no other call.  The sender
// reads the wait afresh before every transmission, so a packet in flight
// follows what its neighbours teach.
//
// Of IChannelSendOption: IsValid is true; GetSendCount is the configured
// count; GetSendInterval(i) gives the current wait in whole milliseconds,
// rounded up, for every i below the count (the sender itself uses
// microseconds); Reset forgets what was learned; SetDefaultForUdp,
// SetDefaultForTcp and AddSendInterval change nothing; CopyTo gives a target of
// this kind the same configuration and learned state, and any other target a
// plain schedule of the current waits.
ZELSOCKET_API bool CreateAdaptiveSendOption(IChannelSendOption** out);
ZELSOCKET_API bool CreateAdaptiveSendOption(RefPtr<IChannelSendOption>& out);
ZELSOCKET_API bool CreateAdaptiveSendOption(const AdaptiveSendConfig& config, IChannelSendOption** out);
ZELSOCKET_API bool CreateAdaptiveSendOption(const AdaptiveSendConfig& config, RefPtr<IChannelSendOption>& out);

// What a learning schedule knows now, in milliseconds.
struct AdaptiveSendStats {
  double srttMs = 0;    // smoothed round trip; 0 before the first sample
  double rttvarMs = 0;  // its variation; 0 before the first sample
  double rtoMs = 0;     // the wait after each transmission now, backoff included
  int backoff = 0;      // doublings in force
  unsigned long long samples = 0;  // timed answers so far
};

// False (and `out` untouched) when `option` is not a learning schedule.
ZELSOCKET_API bool GetAdaptiveSendStats(IChannelSendOption* option, AdaptiveSendStats& out);

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
