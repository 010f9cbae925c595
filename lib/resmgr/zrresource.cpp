#include "resmgr/zrresource.hpp"

#include "cstdmf/critical_error.hpp"
#include "cstdmf/debug.hpp"
#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "resmgr/bin_section.hpp"

#include <string_view>
#include <system_error>

#ifndef VERTEXMILL_PRODUCT_NAME
#define VERTEXMILL_PRODUCT_NAME "vertexmill"
#endif
#ifndef VERTEXMILL_VERSION
#define VERTEXMILL_VERSION "0.1.0"
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
  explicit RootSection(FileSystemPtr fileSystem) : m_fileSystem(std::move(fileSystem)) {}

  const std::string& sectionName() const override { return m_name; }
  int countChildren() override { return 0; }
  DataSectionPtr openChild(int) override { return nullptr; }
  DataSectionPtr findChild(std::string_view name) override
  {
    const std::string path(name);
    BinaryPtr bytes = m_fileSystem->readFile(path);
    if (!bytes)
      return nullptr;
    DataSectionPtr section(new BinSection(path, bytes));
    section->setParent(this);
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
};

} // namespace

ZRResource* ZRResource::s_instance = nullptr;

ZRResource& ZRResource::createOnce()
{
  if (s_instance == nullptr)
    s_instance = new ZRResource();
  return *s_instance;
}

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
  m_rootSection = new RootSection(m_fileSystem);
}

void ZRResource::initVersionData()
{
  if (m_appVersionData)
    cstdmf::assertionFailed("!appVersionData_", ZR_SOURCE_LOCATION);
  // The build stamps the product's own name and version; there is no company to name.
  m_appVersionData = VersionData{std::string(), VERTEXMILL_PRODUCT_NAME, VERTEXMILL_VERSION};
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
  while (begin <= paths.size())
  {
    size_t end = paths.find(';', begin);
    if (end == std::string::npos)
      end = paths.size();
    // Empty pieces (a trailing ";", or ";;") name no path.
    if (end > begin && addPath(paths.substr(begin, end - begin)) < 0)
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
  return m_rootSection->findChild(resourcePath);
}
