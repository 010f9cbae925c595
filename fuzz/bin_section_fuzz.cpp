// Feeds arbitrary bytes to the container parser and to BinSection, and checks that both agree,
// that children borrow the input's bytes, and that rewriting reads back the same entries.
#include "resmgr/bin_section.hpp"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace
{

struct Entry
{
  std::string name;
  std::string data;
  bool operator==(const Entry&) const = default;
};

void check(bool condition)
{
  if (!condition)
    std::abort();
}

bool parseAll(const BinaryPtr& block, std::vector<Entry>& entries)
{
  return parseBinSectionEntries(block, [&](const char* name, int nameLength, const char* data, int dataLength) {
    entries.push_back({std::string(name, static_cast<size_t>(nameLength)), std::string(data, static_cast<size_t>(dataLength))});
  });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  BinaryPtr block(new BinaryBlock(data, size, "Fuzz"));
  std::vector<Entry> entries;
  const bool parsed = parseAll(block, entries);

  SmartPointer<BinSection> section(new BinSection("fuzz", block));
  const int count = section->countChildren();
  check(count == (parsed ? static_cast<int>(entries.size()) : 0));
  for (int i = 0; i < count; ++i)
  {
    DataSectionPtr child = section->openChild(i);
    check(child && child->sectionName() == entries[i].name);
    BinaryPtr bytes = child->asBinary();
    check(bytes && bytes->owner().get() == block.get());
    check(std::string(bytes->data(), bytes->len()) == entries[i].data);
  }
  check(!section->openChild(count));
  if (count > 0)
  {
    size_t first = 0;
    while (entries[first].name != entries.back().name)
      ++first;
    check(section->findChild(entries.back().name) == section->openChild(static_cast<int>(first)));
  }

  // Rewriting in the current form reads back the same entries; no entries write a file that is
  // refused.
  BinaryPtr rewritten = section->asBinary();
  check(rewritten != nullptr);
  std::vector<Entry> again;
  const bool reparsed = parseAll(rewritten, again);
  check(count > 0 ? reparsed && again == entries : !reparsed);
  check(section->countChildren() == count);
  return 0;
}
