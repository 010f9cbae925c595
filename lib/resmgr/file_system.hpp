#pragma once
// File systems of the resource manager: the native one over a directory, and the multi file
// system that searches one file system per resource path.

#include "cstdmf/smartpointer.hpp"
#include "resmgr/binary_block.hpp"

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

class FileSystem : public ReferenceCount
{
public:
  enum class FileType
  {
    NotFound,
    Directory,
    File,
  };

  ~FileSystem() override = default;

  virtual FileType getFileType(const std::string& path) const = 0;
  // The whole file in one block. Null when the file does not exist (not logged, so that a
  // search can go on) or cannot be read (logged).
  [[nodiscard]] virtual BinaryPtr readFile(const std::string& path) const = 0;
};
using FileSystemPtr = SmartPointer<FileSystem>;

// Files of the operating system. Relative paths are taken relative to the base directory
// (UTF-8, '/' separators; empty means the working directory).
class NativeFileSystem final : public FileSystem
{
public:
  explicit NativeFileSystem(std::string basePath = std::string());

  FileType getFileType(const std::string& path) const override;
  [[nodiscard]] BinaryPtr readFile(const std::string& path) const override;

  const std::string& basePath() const { return m_basePath; }

private:
  std::filesystem::path fullPath(const std::string& path) const;

  std::string m_basePath;
};

// Searches the file systems of the resource paths in the order they were added, then the base
// file system.
class FileSystemsManager final : public FileSystem
{
public:
  explicit FileSystemsManager(FileSystemPtr baseFileSystem);

  void addFileSystem(FileSystemPtr fileSystem);
  size_t fileSystemCount() const { return m_fileSystems.size(); }

  // Turns off the acceptance of unsigned file systems (packages). Must come before any file
  // system has been added (asserted).
  void disableUnsignedFilesystems();
  bool acceptsUnsignedFilesystems() const { return m_acceptUnsigned; }

  FileType getFileType(const std::string& path) const override;
  [[nodiscard]] BinaryPtr readFile(const std::string& path) const override;

private:
  FileSystemPtr m_baseFileSystem;
  std::vector<FileSystemPtr> m_fileSystems;
  bool m_acceptUnsigned = true;
};
