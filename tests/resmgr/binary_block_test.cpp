#include "resmgr/binary_block.hpp"

#include "test_helpers.hpp"
#include "fatal_exit_status.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>

#if defined(__SANITIZE_ADDRESS__)
#define RESMGR_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define RESMGR_TEST_ASAN 1
#endif
#endif
#ifdef RESMGR_TEST_ASAN
// A block too large to allocate must come back empty, not end the test run.
extern "C" const char* __asan_default_options()
{
  return "allocator_may_return_null=1";
}
#endif

namespace
{

using resmgr_test::blockOf;
using resmgr_test::textOf;

TEST(BinaryBlock, OwnsCopiesOrZeroFills)
{
  std::string source = "payload";
  BinaryPtr copy(new BinaryBlock(source.data(), source.size(), "Test"));
  source[0] = 'X';
  EXPECT_EQ(textOf(copy), "payload");
  EXPECT_STREQ(copy->allocationTag(), "Test");

  BinaryPtr zeros(new BinaryBlock(nullptr, 5, "Test"));
  EXPECT_EQ(textOf(zeros), std::string(5, '\0'));

  BinaryPtr empty(new BinaryBlock(nullptr, 0, "Test"));
  EXPECT_EQ(empty->len(), 0u);
  EXPECT_NE(empty->data(), nullptr);
}

TEST(BinaryBlock, BorrowedBytesKeepTheOwnerAlive)
{
  BinaryPtr owner = blockOf("0123456789");
  BinaryPtr part(new BinaryBlock(owner->data() + 2, 3, "Test", owner));
  const char* where = owner->data() + 2;
  EXPECT_EQ(part->data(), where);
  EXPECT_EQ(part->owner().get(), owner.get());
  owner = nullptr; // the part holds the last reference now
  EXPECT_EQ(textOf(part), "234");
}

TEST(BinaryBlockDeathTest, BorrowedRangeMustLieInsideTheOwner)
{
  BinaryPtr owner = blockOf("0123");
  EXPECT_EXIT(
    {
      cstdmf::setupConsoleLogging(1);
      BinaryPtr part(new BinaryBlock(owner->data() + 2, 3, "Test", owner));
    },
    testing::ExitedWithCode(kFatalExitStatus), "ASSERTION FAILED: rangeInsideOwner");
}

TEST(BinaryBlock, FailedAllocationLeavesAnEmptyBlock)
{
  resmgr_test::CapturedLog log;
  BinaryPtr huge(new BinaryBlock(nullptr, SIZE_MAX / 2, "Test"));
  EXPECT_EQ(huge->len(), 0u);
  EXPECT_TRUE(log.text().find("ERROR: [ResMgr] BinaryBlock: Failed to alloc ") != std::string::npos) << log.text();

  // The exact lines, with the counts as their formats print them.
  resmgr_test::CapturedLog exact;
  BinaryBlock::failNextAllocationForTesting();
  BinaryPtr copy(new BinaryBlock("abcd", 4, "Test"));
  EXPECT_EQ(copy->len(), 0u);
  std::istringstream stream(std::string(70000, 's'));
  BinaryBlock::failNextAllocationForTesting();
  BinaryPtr fromStream(new BinaryBlock(stream, 70000, "Test"));
  EXPECT_EQ(fromStream->len(), 0u);
  EXPECT_EQ(exact.text(), "ERROR: [ResMgr] BinaryBlock: Failed to alloc 4 bytes\n\n"
                          "ERROR: [ResMgr] BinaryBlock: Failed to alloc 70000 bytes (creating from stream)\n\n");
}

TEST(BinaryBlock, MadeFromAStream)
{
  std::istringstream stream("0123456789");
  stream.ignore(2);
  BinaryPtr block(new BinaryBlock(stream, 5, "BinaryBlock/DataSection"));
  EXPECT_EQ(textOf(block), "23456");
  EXPECT_STREQ(block->allocationTag(), "BinaryBlock/DataSection");
  EXPECT_FALSE(block->owner());

  // A stream that ends early gives an empty block and says so.
  resmgr_test::CapturedLog log;
  BinaryPtr truncated(new BinaryBlock(stream, 10, "Test"));
  EXPECT_EQ(truncated->len(), 0u);
  EXPECT_EQ(log.text(), "ERROR: [ResMgr] BinaryBlock: the stream ended after 3 of 10 bytes\n\n");
  BinaryPtr empty(new BinaryBlock(stream, 0, "Test"));
  EXPECT_EQ(empty->len(), 0u);
}

TEST(BinaryBlock, CompressRoundTripAndBrokenStreams)
{
  std::string text;
  for (int i = 0; i < 5000; ++i)
    text += std::to_string(i % 97);
  BinaryPtr packed = blockOf(text)->compress();
  ASSERT_TRUE(packed);
  EXPECT_LT(packed->len(), text.size());
  EXPECT_EQ(textOf(packed->decompress()), text);
  // Exactly at the limit is allowed; one byte less is refused.
  EXPECT_EQ(textOf(packed->decompress(text.size())), text);
  EXPECT_FALSE(packed->decompress(text.size() - 1));
  EXPECT_EQ(textOf(blockOf("")->compress()->decompress()), "");

  resmgr_test::CapturedLog log;
  EXPECT_FALSE(blockOf("not a zlib stream")->decompress());
  const std::string stream = textOf(packed);
  for (size_t length = 0; length < stream.size(); ++length)
    EXPECT_FALSE(blockOf(stream.substr(0, length))->decompress()) << "prefix of " << length;
  EXPECT_FALSE(blockOf(stream + "x")->decompress());
  EXPECT_NE(log.text().find("BinaryBlock::decompress: the block has bytes after the end of its zlib stream"),
            std::string::npos);
}

} // namespace
