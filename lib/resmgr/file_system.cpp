#include "resmgr/file_system.hpp"

#include "cstdmf/debug.hpp"

#include <cstdint>
#include <fstream>
#include <limits>
#include <system_error>
#include <utility>

std::filesystem::path pathFromUtf8(std::string_view text)
{
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

NativeFileSystem::NativeFileSystem(std::string basePath) : m_basePath(std::move(basePath)) {}

std::filesystem::path NativeFileSystem::fullPath(const std::string& path) const
{
  std::filesystem::path result = pathFromUtf8(path);
  if (result.is_absolute() || m_basePath.empty())
    return result;
  return pathFromUtf8(m_basePath) / result;
}

FileSystem::FileType NativeFileSystem::getFileType(const std::string& path) const
{
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(fullPath(path), error);
  if (error)
    return FileType::NotFound;
  if (std::filesystem::is_directory(status))
    return FileType::Directory;
  if (std::filesystem::is_regular_file(status))
    return FileType::File;
  return FileType::NotFound;
}

BinaryPtr NativeFileSystem::readFile(const std::string& path) const
{
  if (getFileType(path) != FileType::File)
    return nullptr;
  const std::filesystem::path file = fullPath(path);
  std::error_code error;
  const uintmax_t size = std::filesystem::file_size(file, error);
  if (error || size > SIZE_MAX || size > static_cast<uintmax_t>(std::numeric_limits<std::streamsize>::max()))
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "NativeFileSystem::readFile cannot size file '%s'.\n", path.c_str());
    return nullptr;
  }
  std::ifstream stream(file, std::ios::binary);
  if (!stream)
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "NativeFileSystem::readFile cannot open file '%s'.\n", path.c_str());
    return nullptr;
  }
  BinaryPtr block(new BinaryBlock(stream, static_cast<size_t>(size), "BinaryBlock/WinFileSystem"));
  if (block->len() != size)
  {
    // The block has said why: memory, or the file ended early.
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "NativeFileSystem::readFile cannot read file '%s'.\n", path.c_str());
    return nullptr;
  }
  return block;
}

FileSystemsManager::FileSystemsManager(FileSystemPtr baseFileSystem) : m_baseFileSystem(std::move(baseFileSystem))
{
  ZR_ASSERT(m_baseFileSystem);
}

void FileSystemsManager::addFileSystem(FileSystemPtr fileSystem)
{
  ZR_ASSERT(fileSystem);
  m_fileSystems.push_back(std::move(fileSystem));
}

void FileSystemsManager::disableUnsignedFilesystems()
{
  // Spelled out rather than ZR_ASSERT: tools look for this exact assertion text.
  if (!m_fileSystems.empty())
    cstdmf::assertionFailed("filesystems_.empty()", ZR_SOURCE_LOCATION);
  m_acceptUnsigned = false;
}

FileSystem::FileType FileSystemsManager::getFileType(const std::string& path) const
{
  for (const FileSystemPtr& fileSystem : m_fileSystems)
  {
    const FileType type = fileSystem->getFileType(path);
    if (type != FileType::NotFound)
      return type;
  }
  return m_baseFileSystem->getFileType(path);
}

BinaryPtr FileSystemsManager::readFile(const std::string& path) const
{
  for (const FileSystemPtr& fileSystem : m_fileSystems)
  {
    if (fileSystem->getFileType(path) == FileType::File)
      return fileSystem->readFile(path);
  }
  return m_baseFileSystem->readFile(path);
}
