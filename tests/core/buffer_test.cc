#include <cstring>

#include <gtest/gtest.h>

#include "zelsocket/buffer.h"

namespace zelsocket {
namespace {

TEST(Buffer, FreshBufferHasNoStorage) {
  Buffer b;
  EXPECT_EQ(b.GetBuf(), nullptr);
  EXPECT_EQ(b.GetLength(), 0);
  EXPECT_EQ(b.GetCapacity(), 0);
  EXPECT_TRUE(b.IsEmpty());
  EXPECT_TRUE(b.Append("x", 0));  // allocates nothing
  EXPECT_EQ(b.GetCapacity(), 0);
}

TEST(Buffer, ReserveIsExactAboveTheSixteenByteMinimum) {
  Buffer b;
  EXPECT_TRUE(b.Reserve(1));
  EXPECT_EQ(b.GetCapacity(), 16);
  EXPECT_TRUE(b.Reserve(17));
  EXPECT_EQ(b.GetCapacity(), 17);
  const unsigned char* before = b.GetBuf();
  EXPECT_TRUE(b.Reserve(5));  // at or below the capacity: nothing moves
  EXPECT_EQ(b.GetBuf(), before);
  EXPECT_EQ(b.GetCapacity(), 17);
  Buffer c;
  EXPECT_TRUE(c.Reserve(0));
  EXPECT_EQ(c.GetCapacity(), 16);
  EXPECT_EQ(c.GetLength(), 0);
}

TEST(Buffer, ResizeOnlyMovesTheLengthWhenShrinking) {
  Buffer b;
  ASSERT_TRUE(b.Resize(5));
  b.GetBuf()[4] = 0x5A;
  ASSERT_TRUE(b.Resize(3));
  ASSERT_TRUE(b.Resize(5));
  EXPECT_EQ(b.GetBuf()[4], 0x5A);
  EXPECT_EQ(b.GetCapacity(), 16);
  Buffer fresh;
  ASSERT_TRUE(fresh.Resize(0));
  EXPECT_EQ(fresh.GetCapacity(), 16);
}

TEST(Buffer, AppendDoublesTheNeededTotalOnlyWhenItDoesNotFit) {
  Buffer b;
  char ten[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
  ASSERT_TRUE(b.Append(ten, 10));
  EXPECT_EQ(b.GetCapacity(), 20);
  ASSERT_TRUE(b.Append(ten, 10));
  EXPECT_EQ(b.GetCapacity(), 20);  // total equals capacity: no growth
  ASSERT_TRUE(b.Append(ten, 1));
  EXPECT_EQ(b.GetCapacity(), 42);
  EXPECT_EQ(b.GetLength(), 21);
  EXPECT_EQ(std::memcmp(b.GetBuf() + 10, ten, 10), 0);
  EXPECT_EQ(b.GetBuf()[20], 0);
  Buffer one;
  ASSERT_TRUE(one.Append(ten, 1));
  EXPECT_EQ(one.GetCapacity(), 16);
}

TEST(Buffer, AppendRefusesTotalsThatWouldOverflowTheDoubling) {
  Buffer b;
  ASSERT_TRUE(b.Resize(8));
  EXPECT_FALSE(b.Append("x", (1 << 30) - 4));
  EXPECT_EQ(b.GetLength(), 8);
  EXPECT_EQ(b.GetCapacity(), 16);
}

TEST(Buffer, CopyFromReplacesButZeroLengthKeepsTheOldBytes) {
  Buffer b;
  ASSERT_TRUE(b.CopyFrom("abcdefgh", 8));
  EXPECT_TRUE(b.CopyFrom("zz", 0));
  EXPECT_EQ(b.GetLength(), 8);
  ASSERT_TRUE(b.CopyFrom("xyz", 3));
  EXPECT_EQ(b.GetLength(), 3);
  EXPECT_EQ(b.Compare("xyz", 3), 0);
  EXPECT_EQ(b.GetCapacity(), 16);
}

TEST(Buffer, CompareOrdersByLengthBeforeBytes) {
  Buffer b;
  b.CopyFrom("zzz", 3);
  EXPECT_EQ(b.Compare("aaaaa", 5), -2);
  EXPECT_EQ(b.Compare("zzz", 3), 0);
  Buffer c;
  c.CopyFrom("abc", 3);
  EXPECT_LT(c.Compare("abd", 3), 0);
  EXPECT_GT(c.Compare("abb", 3), 0);
  Buffer empty;
  EXPECT_EQ(empty.Compare(nullptr, 0), 0);
}

TEST(Buffer, CopiesOwnTheirBytes) {
  Buffer empty;
  Buffer copyOfEmpty(empty);
  EXPECT_EQ(copyOfEmpty.GetCapacity(), 0);
  EXPECT_EQ(copyOfEmpty.GetBuf(), nullptr);

  Buffer big;
  big.Reserve(500);
  std::string bytes(100, 'q');
  big.CopyFrom(bytes.data(), 100);
  Buffer copy(big);
  EXPECT_EQ(copy.GetLength(), 100);
  EXPECT_EQ(copy.GetCapacity(), 100);
  EXPECT_NE(copy.GetBuf(), big.GetBuf());
  EXPECT_NE(static_cast<IMutableBuffer*>(copy), static_cast<IMutableBuffer*>(big));

  Buffer target;
  target.CopyFrom("12345678", 8);
  target = empty;
  EXPECT_EQ(target.GetLength(), 0);
  target = big;
  EXPECT_EQ(target.Compare(bytes.data(), 100), 0);
  big.GetBuf()[0] = 'X';
  EXPECT_EQ(target.GetBuf()[0], 'q');
  target = target;  // self-assignment keeps the bytes
  EXPECT_EQ(target.GetLength(), 100);
}

TEST(CreateBuffer, NullOutIsRefusedAndRefPtrFormReplacesItsContent) {
  EXPECT_FALSE(CreateBuffer(static_cast<IMutableBuffer**>(nullptr)));
  IMutableBuffer* raw = reinterpret_cast<IMutableBuffer*>(0x1);
  ASSERT_TRUE(CreateBuffer(&raw));
  ASSERT_NE(raw, nullptr);
  EXPECT_EQ(raw->GetCapacity(), 0);
  EXPECT_EQ(raw->Release(), 0);

  RefPtr<IMutableBuffer> a;
  ASSERT_TRUE(CreateBuffer(a));
  IMutableBuffer* first = a;
  first->AddRef();  // keep it to see that CreateBuffer released it
  ASSERT_TRUE(CreateBuffer(a));
  EXPECT_NE(static_cast<IMutableBuffer*>(a), first);
  EXPECT_EQ(first->Release(), 0);
}

}  // namespace
}  // namespace zelsocket
