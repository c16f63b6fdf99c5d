#include <cstring>
#include <utility>

#include "zelsocket/channel_option.h"

namespace zelsocket {

Proxy::Proxy() : kind(0), port(0) {
  host[0] = '\0';
  text1[0] = '\0';
  text2[0] = '\0';
  text3[0] = '\0';
}

Proxy& Proxy::operator=(const Proxy& other) {
  if (this != &other) std::memcpy(static_cast<void*>(this), &other, sizeof(Proxy));
  return *this;
}

Proxy& Proxy::operator=(Proxy&& other) { return *this = static_cast<const Proxy&>(other); }

ChannelConnectOption::ChannelConnectOption()
    : option0(-1),
      bindAddress(IPAddress::Any),
      bindPortMin(0),
      bindPortMax(0),
      option1(0),
      nonLspSocket(0),
      option2(0),
      option3(-1),
      option4(0),
      option5(0) {}

ChannelConnectOption::ChannelConnectOption(const ChannelConnectOption& other) : ChannelConnectOption() {
  *this = other;
}

ChannelConnectOption::ChannelConnectOption(ChannelConnectOption&& other) : ChannelConnectOption() {
  *this = other;
}

ChannelConnectOption::~ChannelConnectOption() = default;

ChannelConnectOption& ChannelConnectOption::operator=(const ChannelConnectOption& other) {
  if (this == &other) return *this;
  option0 = other.option0;
  bindAddress = other.bindAddress;
  bindPortMin = other.bindPortMin;
  bindPortMax = other.bindPortMax;
  option1 = other.option1;
  nonLspSocket = other.nonLspSocket;
  proxy = other.proxy;
  option2 = other.option2;
  option3 = other.option3;
  option4 = other.option4;
  option5 = other.option5;
  return *this;
}

ChannelConnectOption& ChannelConnectOption::operator=(ChannelConnectOption&& other) {
  return *this = static_cast<const ChannelConnectOption&>(other);
}

}  // namespace zelsocket
