#include "resmgr/zrresource.hpp"

#include "cstdmf/critical_error.hpp"
#include "cstdmf/debug.hpp"
#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "cstdmf/version.hpp"
#include "resmgr/bin_section.hpp"
#include "resmgr/data_section_cache.hpp"

#include <tinyxml2.h>

#include <filesystem>

#include <string_view>
#include <system_error>

#ifndef VERTEXMILL_PRODUCT_NAME
#define VERTEXMILL_PRODUCT_NAME "vertexmill"
#endif
namespace
{

bool equalsIgnoringCase(std::string_view a, std::string_view b)
{
  if (a.size() != b.size())
    return false;
  for (size_t i = 0; i < a.size(); ++i)
  {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    if (lower(a[i]) != lower(b[i]))
      return false;
  }
  return true;
}

// The root of the section tree: its children are the files that the file-system interface
// finds, opened as container sections on request. It is not enumerable and holds nothing itself.
class RootSection final : public DataSection
{
public:
  RootSection(FileSystemPtr fileSystem, const ZRResource& resources)
    : m_fileSystem(std::move(fileSystem)), m_resources(resources)
  {
  }

  const std::string& sectionName() const override { return m_name; }
  int countChildren() override { return 0; }
  DataSectionPtr openChild(int) override { return nullptr; }
  DataSectionPtr findChild(std::string_view name) override
  {
    const std::string path(name);
    BinaryPtr bytes = m_fileSystem->readFile(path);
    if (!bytes)
      return nullptr;
    // Held by no section: it saves into the file it was read from.
    SmartPointer<BinSection> section = BinSectionCreator::load(nullptr, path, std::move(bytes));
    section->setFilePath(m_resources.resolveToAbsolutePath(path));
    return section;
  }
  DataSectionPtr newSection(std::string_view name) override
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "RootSection::newSection cannot create '%.*s'.\n",
           static_cast<int>(name.size()), name.data());
    return nullptr;
  }
  void delChild(std::string_view) override {}
  void delChild(const DataSectionPtr&) override {}
  void delChildren() override {}
  BinaryPtr asBinary() override { return nullptr; }
  bool setBinary(BinaryPtr) override { return false; }
  size_t bytes() override { return 0; }
  void setParent(DataSection*) override {}
  DataSection* parentSection() const override { return nullptr; }
  bool save(const std::string&) override
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "RootSection::save: the root has nothing to save.\n");
    return false;
  }
  DataSectionPtr convertToZip(const std::string&) override
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "RootSection::convertToZip: the root cannot become a zip.\n");
    return nullptr;
  }

private:
  const std::string m_name;
  FileSystemPtr m_fileSystem;
  const ZRResource& m_resources;
};

std::string withForwardSlashes(std::string_view path)
{
  std::string text(path);
  for (char& c : text)
  {
    if (c == '\\')
      c = '/';
  }
  return text;
}

std::string joined(const std::string& directory, std::string_view name)
{
  if (directory.empty())
    return std::string(name);
  std::string path = withForwardSlashes(directory);
  if (path.back() != '/')
    path += '/';
  path += withForwardSlashes(name);
  return path;
}

} // namespace

ZRResource* ZRResource::s_instance = nullptr;

ZRResource& ZRResource::createOnce()
{
  if (s_instance == nullptr)
    s_instance = new ZRResource();
  return *s_instance;
}

constexpr size_t kDataSectionCacheKilobytes = 102400;

bool ZRResource::init(const std::vector<std::string>& paths)
{
  ZRResource& root = createOnce();
  root.initStandardDirectoriesPaths();
  root.initFileSystemInterface();
  root.initRootDataSection();
  for (const std::string& path : paths)
    (void)root.addPath(path); // a bad path is logged and skipped
  root.initVersionData();
  return true;
}

bool ZRResource::init(int argc, char* argv[])
{
  ZRResource& root = createOnce();
  root.initStandardDirectoriesPaths();
  root.initFileSystemInterface();
  root.initRootDataSection();
  root.parseCommandLine(argc, argv);
  if (root.m_paths.empty())
  {
    // A paths file beside the executable stands in for "--res".
    const std::string pathsFile = root.m_appDirectory + "paths.xml";
    if (root.getFileType(pathsFile) == FileSystem::FileType::File)
      (void)root.loadPathsXml(pathsFile);
  }
  if (root.m_paths.empty())
  {
    const auto word = [&](int i) { return argc > i && argv[i] != nullptr ? std::string(argv[i]) : "empty"; };
    const std::string text =
      "No resource paths are loaded from command line or paths.xml\n[0]:" + word(0) + "\n[1]:" + word(1);
    ZR_CRITICAL_ERROR(text.c_str());
  }
  root.initVersionData();
  return true;
}

bool ZRResource::init(const std::string& path, bool addIt)
{
  return addIt ? init(std::vector<std::string>{path}) : init(std::vector<std::string>{});
}

void ZRResource::fini()
{
  // Cached sections were opened through this root; they go with it.
  DataSectionCache::instance().clear();
  delete s_instance;
  s_instance = nullptr;
}

bool ZRResource::isInitialised()
{
  return s_instance != nullptr;
}

ZRResource& ZRResource::instance()
{
  ZR_ASSERT(s_instance);
  return *s_instance;
}

void ZRResource::initStandardDirectoriesPaths()
{
  m_appDirectory = platform::executableDirectory();
  // Spelled out rather than ZR_ASSERT, here and below: tools look for these exact texts.
  if (m_appDirectory.empty())
    cstdmf::assertionFailed("!appDirectory_.empty()", ZR_SOURCE_LOCATION);
  if (m_appDirectory.back() != '/')
    m_appDirectory += '/';
  m_roamingAppDataDirectory = platform::knownFolder(platform::KnownFolder::RoamingAppData);
  m_localAppDataDirectory = platform::knownFolder(platform::KnownFolder::LocalAppData);
  m_userDocumentsDirectory = platform::knownFolder(platform::KnownFolder::Documents);
  m_userPicturesDirectory = platform::knownFolder(platform::KnownFolder::Pictures);
}

void ZRResource::initFileSystemInterface()
{
  m_fileSystem = new FileSystemsManager(new NativeFileSystem());
}

void ZRResource::initRootDataSection()
{
  DataSectionCache::instance().setSize(kDataSectionCacheKilobytes);
  DataSectionCache::instance().clear();
  m_rootSection = new RootSection(m_fileSystem, *this);
}

void ZRResource::initVersionData()
{
  if (m_appVersionData)
    cstdmf::assertionFailed("!appVersionData_", ZR_SOURCE_LOCATION);
  m_appVersionData = readVersionData(platform::executablePath());
}

ZRResource::VersionData ZRResource::readVersionData(const std::string& executablePath)
{
#ifdef _WIN32
  static const std::vector<std::string> kNames = {"CompanyName", "ProductName", "ProductVersion"};
  const platform::VersionStrings strings = platform::executableVersionStrings(executablePath, kNames);
  if (!strings.translationsFound)
  {
    ZR_MSG(DebugMessagePriority::Warning, "ResMgr", "ZRResource: VerQueryValue failed for translations\n");
    return {};
  }
  for (size_t i = 0; i < kNames.size(); ++i)
  {
    if (!strings.values[i])
      ZR_MSG_FMT(DebugMessagePriority::Warning, "ResMgr", "ZRResource: VerQueryValue failed for '{}'\n", kNames[i]);
  }
  return VersionData{strings.values[0].value_or(""), strings.values[1].value_or(""), strings.values[2].value_or("")};
#else
  // Executables here carry no version resource: the build stamps the product's own name and
  // version in, and there is no company to name.
  (void)executablePath;
  return VersionData{std::string(), VERTEXMILL_PRODUCT_NAME, std::string(cstdmf::toolsVersion())};
#endif
}

int ZRResource::addPath(const std::string& path)
{
  for (size_t i = 0; i < m_paths.size(); ++i)
  {
    if (m_paths[i] == path)
      return static_cast<int>(i);
  }
  std::error_code error;
  if (path.empty() || !std::filesystem::is_directory(cstdmf::u8path(path), error))
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "ZRResource::addPath '%s' is not an existing directory.\n",
           path.c_str());
    return -1;
  }
  m_fileSystem->addFileSystem(new NativeFileSystem(path));
  m_paths.push_back(path);
  return static_cast<int>(m_paths.size() - 1);
}

bool ZRResource::addMultiplePaths(const std::string& paths)
{
  size_t begin = 0;
  if (paths.empty())
    return true;
  while (begin <= paths.size())
  {
    size_t end = paths.find(';', begin);
    if (end == std::string::npos)
      end = paths.size();
    // An empty piece (";;", or a ";" at either end) names no directory and fails like any other.
    if (addPath(paths.substr(begin, end - begin)) < 0)
      return false;
    begin = end + 1;
  }
  return true;
}

void ZRResource::parseCommandLine(int argc, char* argv[])
{
  for (int i = 0; i < argc; ++i)
  {
    const std::string_view argument = argv[i] != nullptr ? std::string_view(argv[i]) : std::string_view();
    if (argument == "-r" || argument == "--res")
    {
      ZR_ASSERT(argc > i+1);
      ++i;
      (void)addMultiplePaths(argv[i] != nullptr ? argv[i] : ""); // a bad path is logged
    }
    else if (argument == "-safe" || argument == "--safe" || argument == "--safemode")
    {
      m_fileSystem->disableUnsignedFilesystems();
      m_safeMode = true;
    }
    else if (equalsIgnoringCase(argument, "--uid"))
    {
      ZR_ASSERT(argc > i+1);
      ++i;
      m_userId = argv[i] != nullptr ? argv[i] : "";
      ZR_MSG(DebugMessagePriority::Info, "ResMgr", "UID set to %s (from command line).\n", m_userId.c_str());
    }
  }
}

std::string ZRResource::getDefaultPath() const
{
  return m_paths.empty() ? std::string() : m_paths.front();
}

DataSectionPtr ZRResource::openSection(const std::string& resourcePath) const
{
  DataSectionCache& cache = DataSectionCache::instance();
  if (DataSectionPtr cached = cache.find(resourcePath))
    return cached;
  DataSectionPtr section = m_rootSection->findChild(resourcePath);
  cache.add(resourcePath, section);
  return section;
}

bool ZRResource::loadPathsXml(const std::string& file)
{
  ZR_MSG(DebugMessagePriority::Info, "ResMgr", "Loading paths xml '%s'...\n", file.c_str());
  BinaryPtr bytes = NativeFileSystem().readFile(file);
  if (!bytes)
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "Invalid paths xml '%s': file not found\n", file.c_str());
    return false;
  }
  tinyxml2::XMLDocument document;
  if (document.Parse(bytes->data(), bytes->len()) != tinyxml2::XML_SUCCESS || document.RootElement() == nullptr)
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "Invalid paths xml '%s': not an xml file\n", file.c_str());
    return false;
  }
  const std::string baseDirectory = withForwardSlashes(file).substr(0, withForwardSlashes(file).find_last_of('/') + 1);
  bool allAdded = true;
  if (const tinyxml2::XMLElement* list = document.RootElement()->FirstChildElement("Paths"))
  {
    for (const tinyxml2::XMLElement* entry = list->FirstChildElement("Path"); entry != nullptr;
         entry = entry->NextSiblingElement("Path"))
    {
      std::string path = entry->GetText() != nullptr ? entry->GetText() : "";
      while (!path.empty() && (path.front() == ' ' || path.front() == '\t' || path.front() == '\n' || path.front() == '\r'))
        path.erase(0, 1);
      while (!path.empty() && (path.back() == ' ' || path.back() == '\t' || path.back() == '\n' || path.back() == '\r'))
        path.pop_back();
      if (!path.empty() && isPathRelative(path))
        path = joined(baseDirectory, path);
      allAdded = addPath(path) >= 0 && allAdded;
    }
  }
  return allAdded;
}

bool ZRResource::isPathRelative(std::string_view path)
{
  if (!path.empty() && (path.front() == '/' || path.front() == '\\'))
    return false;
  const bool drive = path.size() >= 2 && path[1] == ':' &&
                     ((path[0] >= 'a' && path[0] <= 'z') || (path[0] >= 'A' && path[0] <= 'Z'));
  return !drive;
}

std::string ZRResource::resolveFilename(std::string_view resourceName) const
{
  if (!isPathRelative(resourceName))
    return withForwardSlashes(resourceName);
  for (const std::string& directory : m_paths)
  {
    const std::string candidate = joined(directory, resourceName);
    if (NativeFileSystem().getFileType(candidate) != FileSystem::FileType::NotFound)
      return candidate;
  }
  return m_paths.empty() ? withForwardSlashes(resourceName) : joined(m_paths.front(), resourceName);
}

std::string ZRResource::dissolveFilename(std::string_view fileName) const
{
  const std::string name = withForwardSlashes(fileName);
  for (const std::string& directory : m_paths)
  {
    std::string prefix = withForwardSlashes(directory);
    if (prefix.empty())
      continue;
    if (prefix.back() != '/')
      prefix += '/';
    if (name.size() > prefix.size() && name.compare(0, prefix.size(), prefix) == 0)
      return name.substr(prefix.size());
  }
  return name;
}

std::string ZRResource::resolveToAbsolutePath(std::string_view resourceName) const
{
  const std::filesystem::path resolved = cstdmf::u8path(resolveFilename(resourceName));
  std::error_code error;
  std::filesystem::path absolute = std::filesystem::absolute(resolved, error);
  if (error)
    absolute = resolved;
  return cstdmf::toGenericUtf8(absolute.lexically_normal());
}

FileSystem::FileType ZRResource::getFileType(const std::string& resourceName) const
{
  if (!isPathRelative(resourceName))
    return NativeFileSystem().getFileType(resourceName);
  return m_fileSystem->getFileType(resourceName);
}
