#pragma once
// The process-wide root of the resource manager: file-system interface, root data section,
// resource search paths, the application's standard directories and its version data.

#include "resmgr/data_section.hpp"
#include "resmgr/file_system.hpp"

#include <optional>
#include <string_view>
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
  // Releases the root and empties the data-section cache; init may be called again afterwards.
  static void fini();

  static bool isInitialised();
  // The root; calling it outside init..fini is the fatal assertion "s_instance".
  static ZRResource& instance();

  // Adds an existing directory (UTF-8) as a resource path; returns its index, the existing index
  // for a path already added, or -1 (logged) when it is not an existing directory.
  [[nodiscard]] int addPath(const std::string& path);
  // Adds every ";"-separated piece in order; stops at the first that fails (an empty piece, as in
  // "a;;b" or "a;", fails) and returns false. An empty string adds nothing and succeeds.
  [[nodiscard]] bool addMultiplePaths(const std::string& paths);
  // "-r"/"--res" <paths>: addMultiplePaths (a missing value is the fatal assertion "argc > i+1");
  // "-safe"/"--safe"/"--safemode": safe mode, which must come before any path (fatal assertion
  // "filesystems_.empty()"); "--uid" <id> in any letter case: the user id. Other arguments are
  // left to the program.
  void parseCommandLine(int argc, char* argv[]);

  // Reads resource paths from a paths file: <root><Paths><Path>dir</Path>...</Paths></root>, a
  // relative dir taken relative to the file's directory; each is added with addPath. Logs
  // "Loading paths xml '%s'...\n", then "Invalid paths xml '%s': file not found\n" or
  // "Invalid paths xml '%s': not an xml file\n" and returns false when it cannot be read; false
  // too when a path in it fails (logged by addPath).
  [[nodiscard]] bool loadPathsXml(const std::string& file);

  int getPathsCount() const { return static_cast<int>(m_paths.size()); }
  // The resource paths in the order they were added (UTF-8, as given).
  const std::vector<std::string>& getAllPaths() const { return m_paths; }
  // The first resource path, or empty when there is none.
  std::string getDefaultPath() const;

  // Resource names and file names. Separators are '/' in every result; '\' is accepted as input.
  // A path is absolute when it starts with a separator or a drive ("C:"), relative otherwise
  // (the empty path too).
  static bool isPathRelative(std::string_view path);
  // The file name of a resource name: an absolute path unchanged; otherwise the name under the
  // first resource path where it exists (file or directory), else under the default path, else
  // (no resource paths) the name as given.
  std::string resolveFilename(std::string_view resourceName) const;
  // The resource name of a file name: the part after the first resource path that contains it
  // (compared as written, after separators are unified); the name unchanged when none does.
  std::string dissolveFilename(std::string_view fileName) const;
  // resolveFilename made absolute against the working directory and normalised ("a/./b/../c"
  // gives "a/c").
  std::string resolveToAbsolutePath(std::string_view resourceName) const;
  // What the resource name is in the resource paths (searched in order) or, when absolute, on disk.
  FileSystem::FileType getFileType(const std::string& resourceName) const;

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
  // The file at this resource path as a container section, through the data-section cache; null
  // when it cannot be read. The section saves back into its file.
  DataSectionPtr openSection(const std::string& resourcePath) const;

  struct VersionData
  {
    std::string companyName;
    std::string productName;
    std::string productVersion;
  };
  // The version data of the executable at `path`: its version resource where executables carry
  // one (Windows), logging "ZRResource: VerQueryValue failed for translations\n" or
  // "ZRResource: VerQueryValue failed for '{}'\n" and leaving the value empty when a query fails;
  // elsewhere the product name and version the build stamps in.
  static VersionData readVersionData(const std::string& executablePath);

private:

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
