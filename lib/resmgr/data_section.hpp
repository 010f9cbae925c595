#pragma once
// The resource manager's tree of named sections: a section has a name, a value (its bytes) and
// ordered children. Sections are shared through DataSectionPtr.

#include "cstdmf/smartpointer.hpp"
#include "resmgr/binary_block.hpp"

#include <string>
#include <string_view>

class DataSection;
using DataSectionPtr = SmartPointer<DataSection>;

class DataSection : public ReferenceCount
{
public:
  ~DataSection() override = default;

  virtual const std::string& sectionName() const = 0;

  virtual int countChildren() = 0;
  // The child at `index`, or null when the index (taken as unsigned) is at or past the count.
  virtual DataSectionPtr openChild(int index) = 0;
  // The first child whose name equals `name` byte for byte, or null.
  virtual DataSectionPtr findChild(std::string_view name) = 0;
  // Appends a new, empty child; null when this kind of section cannot hold new children.
  virtual DataSectionPtr newSection(std::string_view name) = 0;
  // Removes the first child of that name; nothing happens when there is none.
  virtual void delChild(std::string_view name) = 0;
  // Removes that child; nothing happens when it is not a child of this section.
  virtual void delChild(const DataSectionPtr& child) = 0;
  virtual void delChildren() = 0;

  // The section's bytes (reflecting edits to its children); null when it has none.
  virtual BinaryPtr asBinary() = 0;
  // Replaces the section's bytes; false when this kind of section cannot take them.
  virtual bool setBinary(BinaryPtr block) = 0;
  // Length of the section's bytes.
  virtual size_t bytes() = 0;

  // The section that holds this one; not owned. Used to save a child through its holder.
  virtual void setParent(DataSection* parent) = 0;
  virtual DataSection* parentSection() const = 0;

  // Writes the section through its holder. False, after logging, when it has none or the
  // holder cannot write it.
  [[nodiscard]] virtual bool save(const std::string& saveAsFileName = std::string()) = 0;
  // Asks the holder to replace this section by a zip section; null, after logging, when it has
  // no holder or the holder cannot.
  virtual DataSectionPtr convertToZip(const std::string& saveAs = std::string()) = 0;

  // A child asks its holder to write it. The default holds nothing it could write to: false,
  // after logging.
  [[nodiscard]] virtual bool saveChild(DataSection& child, bool isBinary);
  // A child asks its holder to become a zip section. The default has no zip support: null,
  // after logging.
  virtual DataSectionPtr convertChildToZip(DataSection& child, const std::string& saveAs);
};
