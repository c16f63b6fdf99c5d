#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "zelsocket/buffer.h"
#include "zelsocket/ref_count.h"

namespace zelsocket {
namespace {

std::atomic<int> g_destroyed{0};

class Counted : public RefCount {
 public:
  ~Counted() override { ++g_destroyed; }
};

TEST(RefCount, CountStartsAtOneAndTheLastReleaseDeletes) {
  g_destroyed = 0;
  auto* object = new Counted();
  EXPECT_EQ(object->AddRef(), 2);
  EXPECT_EQ(object->Release(), 1);
  EXPECT_EQ(g_destroyed, 0);
  EXPECT_EQ(object->Release(), 0);
  EXPECT_EQ(g_destroyed, 1);
}

TEST(RefCount, CopyingAnInterfaceValueDoesNotCopyACount) {
  struct Value : IRefCount {
    int AddRef() override { return 0; }
    int Release() override { return 0; }
    int payload = 7;
  };
  Value a;
  Value b(a);
  b = a;
  EXPECT_EQ(b.payload, 7);
}

TEST(RefCount, ConcurrentReleasesDeleteExactlyOnce) {
  g_destroyed = 0;
  for (int round = 0; round < 50; ++round) {
    auto* object = new Counted();
    for (int i = 0; i < 7; ++i) object->AddRef();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back([object] { object->Release(); });
    for (auto& t : threads) t.join();
  }
  EXPECT_EQ(g_destroyed, 50);
}

TEST(RefPtr, TracksReferencesThroughCopyAssignAttachAndReset) {
  g_destroyed = 0;
  auto* object = new Counted();  // count 1, ours
  {
    RefPtr<Counted> a(object);  // 2
    RefPtr<Counted> b(a);       // 3
    EXPECT_EQ(object->AddRef(), 4);
    object->Release();
    b = object;  // self-assignment of the held pointer must not destroy it
    EXPECT_EQ(object->AddRef(), 4);
    object->Release();
    b = nullptr;  // 2
    EXPECT_FALSE(b);
    EXPECT_EQ(object->AddRef(), 3);
    object->Release();
  }
  EXPECT_EQ(g_destroyed, 0);
  RefPtr<Counted> owner;
  owner.Attach(object);  // takes over our reference
  EXPECT_EQ(object->AddRef(), 2);
  object->Release();
  owner = nullptr;
  EXPECT_EQ(g_destroyed, 1);
}

TEST(RefPtr, FactoryOverloadLeavesTheCountAtOne) {
  RefPtr<IMutableBuffer> buffer;
  ASSERT_TRUE(CreateBuffer(buffer));
  EXPECT_EQ(buffer->AddRef(), 2);
  EXPECT_EQ(buffer->Release(), 1);
}

TEST(AtomicAdd, ReturnsTheValueAfterTheAddition) {
  volatile int value = 5;
  EXPECT_EQ(AtomicAdd(&value, -2), 3);
  EXPECT_EQ(value, 3);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&value] {
      for (int k = 0; k < 10000; ++k) AtomicAdd(&value, 1);
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(value, 40003);
}

}  // namespace
}  // namespace zelsocket
