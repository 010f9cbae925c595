#include "resmgr/file_system.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/path_utils.hpp"
#include "resmgr/file_io.hpp"

#include <system_error>
#include <utility>

NativeFileSystem::NativeFileSystem(std::string basePath) : m_basePath(std::move(basePath)) {}

std::filesystem::path NativeFileSystem::fullPath(const std::string& path) const
{
  std::filesystem::path result = cstdmf::u8path(path);
  if (result.is_absolute() || m_basePath.empty())
    return result;
  return cstdmf::u8path(m_basePath) / result;
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
  const fileio::ReadResult read = fileio::readWholeFile(cstdmf::toUtf8(fullPath(path)), "BinaryBlock/WinFileSystem");
  switch (read.status)
  {
  case fileio::ReadStatus::Ok:
    return read.block;
  case fileio::ReadStatus::CannotSize:
  case fileio::ReadStatus::TooLarge:
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "NativeFileSystem::readFile cannot size file '%s'.\n", path.c_str());
    return nullptr;
  case fileio::ReadStatus::OutOfMemory:
    return nullptr; // the block has logged the failed allocation
  case fileio::ReadStatus::CannotOpen:
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "NativeFileSystem::readFile cannot open file '%s'.\n", path.c_str());
    return nullptr;
  case fileio::ReadStatus::ShortRead:
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "NativeFileSystem::readFile read %zu of %llu bytes of '%s'.\n",
           read.bytesRead, static_cast<unsigned long long>(read.fileSize), path.c_str());
    return nullptr;
  }
  return nullptr;
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
