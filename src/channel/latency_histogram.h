// Internal: a distribution of latencies in microseconds, for percentiles.
//
// Log-linear buckets: exact below 16 us, then 16 buckets per power of two, so
// a percentile is within 3% of the truth whatever the scale, in a fixed 2 KiB
// that is allocated only once something is recorded.  Values from 2^36 us (19
// hours) up share the last bucket.
#ifndef ZELSOCKET_SRC_CHANNEL_LATENCY_HISTOGRAM_H
#define ZELSOCKET_SRC_CHANNEL_LATENCY_HISTOGRAM_H

#include <cstdint>
#include <memory>

namespace zelsocket {

class LatencyHistogram {
 public:
  void Record(std::uint64_t us) {
    if (!m_counts) m_counts.reset(new std::uint32_t[kBuckets]());
    ++m_counts[_Bucket(us)];
    ++m_total;
  }
  std::uint64_t Count() const { return m_total; }

  // The value below which a share `q` (0..1] of the records lie, in us: the
  // middle of its bucket.  0 with no record.
  double Percentile(double q) const {
    if (m_total == 0) return 0;
    auto rank = static_cast<std::uint64_t>(q * static_cast<double>(m_total) + 0.999999);
    if (rank < 1) rank = 1;
    std::uint64_t seen = 0;
    for (int b = 0; b < kBuckets; ++b) {
      seen += m_counts[b];
      if (seen >= rank) return _Middle(b);
    }
    return _Middle(kBuckets - 1);
  }

 private:
  static constexpr int kSub = 16;
  static constexpr int kMaxExponent = 36;
  static constexpr int kBuckets = kSub + (kMaxExponent - 4) * kSub;

  static int _Bucket(std::uint64_t us) {
    if (us < kSub) return static_cast<int>(us);
    int exponent = 63;
    while (!(us >> exponent)) --exponent;
    if (exponent >= kMaxExponent) return kBuckets - 1;
    return kSub + (exponent - 4) * kSub + static_cast<int>((us >> (exponent - 4)) & (kSub - 1));
  }
  static double _Middle(int bucket) {
    if (bucket < kSub) return bucket;
    const int exponent = 4 + (bucket - kSub) / kSub;
    const double width = static_cast<double>(std::uint64_t{1} << (exponent - 4));
    return (kSub + (bucket - kSub) % kSub) * width + width / 2;
  }

  std::unique_ptr<std::uint32_t[]> m_counts;
  std::uint64_t m_total = 0;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_CHANNEL_LATENCY_HISTOGRAM_H
