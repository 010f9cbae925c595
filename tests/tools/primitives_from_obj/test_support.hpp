#pragma once
// Helpers shared by the importer's tests.

#include "primitives_from_obj/obj_reader.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>

namespace objimport
{

// Parses OBJ text that the test expects to be valid.
inline ObjMesh parseOk(std::string_view text, std::string_view fileName = "test.obj")
{
  ObjMesh mesh;
  std::string error;
  EXPECT_TRUE(parseObj(text, fileName, mesh, error)) << error;
  return mesh;
}

// A fresh directory under the system's temporary directory, removed with its contents.
class TempDir
{
public:
  TempDir()
  {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    m_path = std::filesystem::temp_directory_path() / (std::string("primitives_from_obj_") + info->name());
    std::filesystem::remove_all(m_path);
    std::filesystem::create_directories(m_path);
  }
  ~TempDir()
  {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string path(std::string_view file) const { return (m_path / file).string(); }

private:
  std::filesystem::path m_path;
};

} // namespace objimport
