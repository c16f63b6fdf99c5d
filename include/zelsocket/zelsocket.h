// Public header: everything an application of zelSocket sees.
#ifndef ZELSOCKET_ZELSOCKET_H
#define ZELSOCKET_ZELSOCKET_H

#include "zelsocket/export.h"
#include "zelsocket/ref_count.h"
#include "zelsocket/log.h"
#include "zelsocket/sync.h"
#include "zelsocket/buffer.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/async.h"
#include "zelsocket/timer.h"
#include "zelsocket/ip_address.h"
#include "zelsocket/work.h"
#include "zelsocket/host_resolve.h"
#include "zelsocket/udp.h"
#include "zelsocket/tcp.h"
#include "zelsocket/channel_option.h"
#include "zelsocket/channel.h"

#endif  // ZELSOCKET_ZELSOCKET_H
