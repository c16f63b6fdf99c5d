#include "zelsocket/buffer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zelsocket {
namespace {

const char kBytes[] = "0123456789abcdefghijklmnopqrstuvwxyz";

// The growth policy, one operation at a time: 'R' Reserve, 'S' Resize,
// 'A' Append, 'C' CopyFrom of n bytes, with the result, length and capacity after it.
struct Step {
  char op;
  int n;
  bool ok;
  int length, capacity;
};

TEST(Buffer, GrowthPolicy) {
  const std::vector<std::vector<Step>> cases = {
      {{'R', 1, true, 0, 16}, {'R', 17, true, 0, 17}, {'R', 5, true, 0, 17}},  // 16 minimum, then exact
      {{'R', 0, true, 0, 16}},
      {{'S', 5, true, 5, 16}, {'S', 3, true, 3, 16}, {'S', 0, true, 0, 16}},  // shrinking keeps the storage
      {{'A', 0, true, 0, 0}, {'A', 10, true, 10, 20}, {'A', 10, true, 20, 20}, {'A', 1, true, 21, 42}},
      {{'A', 1, true, 1, 16}},
      {{'S', 8, true, 8, 16}, {'A', (1 << 30) - 4, false, 8, 16}},            // doubling the total would overflow
      {{'C', 8, true, 8, 16}, {'C', 0, true, 8, 16}, {'C', 3, true, 3, 16}},  // zero length keeps the old bytes
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    Buffer b;
    for (const Step& s : cases[i]) {
      SCOPED_TRACE("case " + std::to_string(i) + ", " + s.op + std::to_string(s.n));
      const unsigned char* before = b.GetBuf();
      int capacityBefore = b.GetCapacity();
      bool ok = s.op == 'R'   ? b.Reserve(s.n)
                : s.op == 'S' ? b.Resize(s.n)
                : s.op == 'A' ? b.Append(kBytes, s.n)
                              : b.CopyFrom(kBytes, s.n);
      EXPECT_EQ(ok, s.ok);
      EXPECT_EQ(b.GetLength(), s.length);
      EXPECT_EQ(b.GetCapacity(), s.capacity);
      EXPECT_TRUE(b.GetCapacity() != capacityBefore || b.GetBuf() == before);  // no needless move
    }
  }
}

TEST(Buffer, BytesSurviveGrowthShrinkingAndCopies) {
  Buffer b;
  ASSERT_TRUE(b.Reserve(500));
  ASSERT_TRUE(b.Append(kBytes, 10));
  ASSERT_TRUE(b.Resize(4));
  ASSERT_TRUE(b.Resize(10));  // bytes past a shrink are not cleared
  ASSERT_TRUE(b.Append(kBytes + 10, 20));
  EXPECT_EQ(b.Compare(kBytes, 30), 0);
  Buffer copy(b), assigned, empty;
  EXPECT_EQ(copy.GetCapacity(), 30);  // a copy takes only the length
  assigned = b;
  b.GetBuf()[0] = 'X';
  Buffer& self = assigned;
  assigned = self;
  EXPECT_EQ(copy.Compare(kBytes, 30), 0);
  EXPECT_EQ(assigned.Compare(kBytes, 30), 0);
  copy = empty;
  EXPECT_EQ(copy.GetLength(), 0);
  EXPECT_EQ(Buffer(empty).GetBuf(), nullptr);
}

TEST(Buffer, CompareOrdersByLengthBeforeBytes) {
  Buffer b;
  b.CopyFrom("abc", 3);
  EXPECT_EQ(b.Compare("aaaaa", 5), -2);
  EXPECT_EQ(b.Compare("abc", 3), 0);
  EXPECT_LT(b.Compare("abd", 3), 0);
  EXPECT_GT(b.Compare("abb", 3), 0);
  EXPECT_EQ(Buffer().Compare(nullptr, 0), 0);
}

TEST(CreateBuffer, NullOutIsRefusedAndTheRefPtrFormReleasesWhatItHeld) {
  EXPECT_FALSE(CreateBuffer(static_cast<IMutableBuffer**>(nullptr)));
  RefPtr<IMutableBuffer> a;
  ASSERT_TRUE(CreateBuffer(a));
  IMutableBuffer* first = a;
  first->AddRef();
  ASSERT_TRUE(CreateBuffer(a));
  EXPECT_NE(static_cast<IMutableBuffer*>(a), first);
  EXPECT_EQ(first->Release(), 0);
}

}  // namespace
}  // namespace zelsocket
