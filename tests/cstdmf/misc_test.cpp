#include "cstdmf/simple_mutex.hpp"
#include "cstdmf/smartpointer.hpp"
#include "cstdmf/span_reader.hpp"
#include "cstdmf/string_id.hpp"

#include <gtest/gtest.h>

#include <array>

namespace
{

TEST(StringID, MurmurHash3ReferenceValues)
{
  // Published reference values of MurmurHash3_x86_32.
  EXPECT_EQ(cstdmf::murmurHash3_x86_32("", 0, 0), 0u);
  EXPECT_EQ(cstdmf::murmurHash3_x86_32("", 0, 1), 0x514E28B7u);
  EXPECT_EQ(cstdmf::murmurHash3_x86_32("\xff\xff\xff\xff", 4, 0), 0x76293B50u);
  EXPECT_EQ(cstdmf::murmurHash3_x86_32("\x21\x43\x65\x87", 4, 0), 0xF55B516Bu);
  EXPECT_EQ(cstdmf::murmurHash3_x86_32("\x21\x43\x65", 3, 0), 0x7E4A8634u);
  EXPECT_EQ(cstdmf::murmurHash3_x86_32("\x21\x43", 2, 0), 0xA0F7B07Au);
  EXPECT_EQ(cstdmf::murmurHash3_x86_32("\x21", 1, 0), 0x72661CF4u);
  EXPECT_EQ(cstdmf::makeStringID("Hello, world!"), 0xC0363E43u);
}

TEST(SpanReader, StickyFailure)
{
  const std::array<unsigned char, 6> bytes = {1, 0, 0, 0, 2, 0};
  cstdmf::SpanReader reader(bytes.data(), bytes.size());
  EXPECT_EQ(reader.read<uint32_t>(), 1u);
  EXPECT_EQ(reader.read<uint32_t>(), 0u); // only two bytes left
  EXPECT_TRUE(reader.failed());
  EXPECT_EQ(reader.read<uint8_t>(), 0u); // stays failed although a byte is there
  EXPECT_EQ(reader.readAt<uint16_t>(4), 2u);
}

TEST(SpanReader, CheckedMultiply)
{
  size_t result = 0;
  EXPECT_TRUE(cstdmf::checkedMultiply(3, 4, result));
  EXPECT_EQ(result, 12u);
  EXPECT_FALSE(cstdmf::checkedMultiply(SIZE_MAX / 2 + 1, 2, result));
}

struct Counted : ReferenceCount
{
  explicit Counted(int* deaths) : m_deaths(deaths) {}
  ~Counted() override { ++*m_deaths; }
  int* m_deaths;
};

TEST(SmartPointer, DeletesAtZero)
{
  int deaths = 0;
  {
    SmartPointer<Counted> a(new Counted(&deaths));
    ConstSmartPointer<Counted> b = a;
    EXPECT_EQ(a->refCount(), 2);
    a = nullptr;
    EXPECT_EQ(deaths, 0);
  }
  EXPECT_EQ(deaths, 1);
}

TEST(SimpleMutex, ReentryIsReportedAndDoesNotDeadlock)
{
  cstdmf::SimpleMutex mutex;
  testing::internal::CaptureStderr();
  {
    cstdmf::SimpleMutexHolder outer(mutex);
    cstdmf::SimpleMutexHolder inner(mutex);
    EXPECT_TRUE(mutex.heldByThisThread());
  }
  const std::string text = testing::internal::GetCapturedStderr();
  EXPECT_NE(text.find("ASSERTION FAILED: m_acquired == false && \"Reentering by the same thread\"\n"), std::string::npos);
  EXPECT_FALSE(mutex.heldByThisThread());
  cstdmf::SimpleMutexHolder again(mutex); // released properly
}

} // namespace
