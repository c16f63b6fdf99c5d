#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "zelsocket/buffer.h"

namespace zelsocket {
namespace {

const char kBytes[] = "0123456789abcdefghijklmnopqrstuvwxyz";

// One operation on a buffer and what it must leave behind.
struct Step {
  char op;  // 'R' Reserve, 'S' Resize, 'A' Append, 'C' CopyFrom
  int n;
  bool ok;
  int length;
  int capacity;
};

struct GrowthCase {
  const char* name;
  std::vector<Step> steps;
};

class BufferGrowth : public ::testing::TestWithParam<GrowthCase> {};

TEST_P(BufferGrowth, LengthAndCapacityAfterEachStep) {
  Buffer b;
  for (const Step& s : GetParam().steps) {
    const unsigned char* before = b.GetBuf();
    int capacityBefore = b.GetCapacity();
    bool ok = s.op == 'R' ? b.Reserve(s.n) : s.op == 'S' ? b.Resize(s.n)
              : s.op == 'A' ? b.Append(kBytes, s.n) : b.CopyFrom(kBytes, s.n);
    SCOPED_TRACE(std::string(1, s.op) + std::to_string(s.n));
    EXPECT_EQ(ok, s.ok);
    EXPECT_EQ(b.GetLength(), s.length);
    EXPECT_EQ(b.GetCapacity(), s.capacity);
    if (b.GetCapacity() == capacityBefore) {
      EXPECT_EQ(b.GetBuf(), before);  // no needless move
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Buffer, BufferGrowth,
    ::testing::Values(
        GrowthCase{"ReserveHasASixteenByteMinimumThenIsExact", {{'R', 1, true, 0, 16}, {'R', 17, true, 0, 17}, {'R', 5, true, 0, 17}}},
        GrowthCase{"ReserveZeroStillAllocates", {{'R', 0, true, 0, 16}}},
        GrowthCase{"ResizeShrinksOnlyTheLength", {{'S', 5, true, 5, 16}, {'S', 3, true, 3, 16}, {'S', 0, true, 0, 16}}},
        GrowthCase{"AppendDoublesTheTotalOnlyWhenItDoesNotFit",
                   {{'A', 0, true, 0, 0}, {'A', 10, true, 10, 20}, {'A', 10, true, 20, 20}, {'A', 1, true, 21, 42}}},
        GrowthCase{"SmallAppendGetsTheMinimum", {{'A', 1, true, 1, 16}}},
        GrowthCase{"AppendRefusesATotalWhoseDoublingOverflows", {{'S', 8, true, 8, 16}, {'A', (1 << 30) - 4, false, 8, 16}}},
        GrowthCase{"CopyFromReplacesButZeroLengthKeepsTheOldBytes",
                   {{'C', 8, true, 8, 16}, {'C', 0, true, 8, 16}, {'C', 3, true, 3, 16}}}),
    [](const ::testing::TestParamInfo<GrowthCase>& info) { return std::string(info.param.name); });

TEST(Buffer, BytesSurviveGrowthAndShrinking) {
  Buffer b;
  ASSERT_TRUE(b.Append(kBytes, 10));
  ASSERT_TRUE(b.Append(kBytes + 10, 11));  // moves the storage
  EXPECT_EQ(b.Compare(kBytes, 21), 0);
  ASSERT_TRUE(b.Resize(4));
  ASSERT_TRUE(b.Resize(21));  // bytes past a shrink are not cleared
  EXPECT_EQ(b.Compare(kBytes, 21), 0);
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

TEST(Buffer, CopiesOwnTheirBytesAndTakeOnlyTheLength) {
  Buffer big;
  big.Reserve(500);
  big.CopyFrom(kBytes, 30);
  Buffer copy(big);
  EXPECT_EQ(copy.GetCapacity(), 30);
  EXPECT_NE(copy.GetBuf(), big.GetBuf());
  Buffer empty;
  Buffer copyOfEmpty(empty);
  EXPECT_EQ(copyOfEmpty.GetBuf(), nullptr);

  Buffer target;
  target.CopyFrom("12345678", 8);
  target = empty;
  EXPECT_EQ(target.GetLength(), 0);
  target = big;
  big.GetBuf()[0] = 'X';
  EXPECT_EQ(target.Compare(kBytes, 30), 0);
  Buffer& self = target;
  target = self;
  EXPECT_EQ(target.Compare(kBytes, 30), 0);
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
  EXPECT_EQ(a->GetCapacity(), 0);
}

}  // namespace
}  // namespace zelsocket
