#pragma once
// The process-wide root of the resource manager: file-system interface, root data section,
// resource search paths, the application's standard directories and its version data.

#include "resmgr/data_section.hpp"
#include "resmgr/file_system.hpp"

#include <optional>
#include <string>
#include <vector>

class ZRResource
{
public:
  // Initialises the root with these resource paths (each through addPath; a path that fails is
  // logged and skipped). An empty list is what the command-line tool uses. Returns true.
  // Initialising again before fini is the fatal assertion "!appVersionData_"; an executable
  // directory that cannot be found is the fatal assertion "!appDirectory_.empty()".
  static bool init(const std::vector<std::string>& paths);
  // Initialises the root with the paths of the command line (see parseCommandLine). No resource
  // path after that is a critical error (the process ends). Returns true.
  static bool init(int argc, char* argv[]);
  // As the list form with `path` alone when `addIt` is set, with no path otherwise.
  static bool init(const std::string& path, bool addIt);
  // Releases the root; init may be called again afterwards.
  static void fini();

  static bool isInitialised();
  // The root; calling it outside init..fini is the fatal assertion "s_instance".
  static ZRResource& instance();

  // Adds an existing directory (UTF-8) as a resource path; returns its index, the existing index
  // for a path already added, or -1 (logged) when it is not an existing directory.
  [[nodiscard]] int addPath(const std::string& path);
  // Adds every non-empty ";"-separated piece in order; stops at the first that fails and returns
  // false. An empty string adds nothing and succeeds.
  [[nodiscard]] bool addMultiplePaths(const std::string& paths);
  // "-r"/"--res" <paths>: addMultiplePaths (a missing value is the fatal assertion "argc > i+1");
  // "-safe"/"--safe"/"--safemode": safe mode, which must come before any path (fatal assertion
  // "filesystems_.empty()"); "--uid" <id> in any letter case: the user id. Other arguments are
  // left to the program.
  void parseCommandLine(int argc, char* argv[]);

  int getPathsCount() const { return static_cast<int>(m_paths.size()); }
  const std::vector<std::string>& getAllPaths() const { return m_paths; }
  // The first resource path, or empty.
  std::string getDefaultPath() const;

  // The executable's directory, always ending in "/".
  const std::string& appDirectory() const { return m_appDirectory; }
  const std::string& appDataDirectory(bool roaming = true) const
  {
    return roaming ? m_roamingAppDataDirectory : m_localAppDataDirectory;
  }
  const std::string& userDocumentsDirectory() const { return m_userDocumentsDirectory; }
  const std::string& userPicturesDirectory() const { return m_userPicturesDirectory; }

  const std::string& appCompanyName() const { return m_appVersionData->companyName; }
  const std::string& appProductName() const { return m_appVersionData->productName; }
  const std::string& appProductVersion() const { return m_appVersionData->productVersion; }

  const std::string& userId() const { return m_userId; }
  bool safeMode() const { return m_safeMode; }

  FileSystemPtr fileSystem() const { return m_fileSystem; }
  DataSectionPtr rootSection() const { return m_rootSection; }
  // The file at this resource path as a container section; null when it cannot be read.
  DataSectionPtr openSection(const std::string& resourcePath) const;

private:
  struct VersionData
  {
    std::string companyName;
    std::string productName;
    std::string productVersion;
  };

  ZRResource() = default;
  static ZRResource& createOnce();

  void initStandardDirectoriesPaths();
  void initFileSystemInterface();
  void initRootDataSection();
  void initVersionData();

  static ZRResource* s_instance;

  SmartPointer<FileSystemsManager> m_fileSystem;
  DataSectionPtr m_rootSection;
  std::vector<std::string> m_paths;
  std::string m_appDirectory;
  std::string m_roamingAppDataDirectory;
  std::string m_localAppDataDirectory;
  std::string m_userDocumentsDirectory;
  std::string m_userPicturesDirectory;
  std::optional<VersionData> m_appVersionData;
  std::string m_userId;
  bool m_safeMode = false;
};
