# Installation and packages. Included at the end of the top CMakeLists, once every tool is
# defined.
#   cmake --install build --prefix P          the tools in P/bin, the documents in P/share/doc/vertexmill
#   cpack --config build/CPackConfig.cmake    vertexmill_<version>_<arch>.deb from the Linux build,
#                                             vertexmill-<version>-win64.zip from the Windows cross build
# The zip holds the same tree as an installation: bin/*.exe and share/doc/vertexmill/.

include(GNUInstallDirs)

set(VERTEXMILL_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/vertexmill)

# Every executable defined below tools/ is a tool users run: tests and benchmarks live elsewhere,
# and the libraries the tools are made of are static.
function(vertexmill_collect_tools directory result)
  set(tools)
  get_property(targets DIRECTORY ${directory} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE")
      list(APPEND tools ${target})
    endif()
  endforeach()
  get_property(subdirectories DIRECTORY ${directory} PROPERTY SUBDIRECTORIES)
  foreach(subdirectory IN LISTS subdirectories)
    vertexmill_collect_tools(${subdirectory} below)
    list(APPEND tools ${below})
  endforeach()
  set(${result} ${tools} PARENT_SCOPE)
endfunction()

vertexmill_collect_tools(${PROJECT_SOURCE_DIR}/tools VERTEXMILL_TOOLS)
list(SORT VERTEXMILL_TOOLS)
message(STATUS "Tools to install: ${VERTEXMILL_TOOLS}")
install(TARGETS ${VERTEXMILL_TOOLS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The README keeps its links to docs/ working where it is installed.
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${VERTEXMILL_DOC_DIR})
# The job scripts of a Slurm cluster (docs/farm.md).
if(NOT WIN32)
  install(PROGRAMS ${PROJECT_SOURCE_DIR}/scripts/slurm/vertexmill-array.sbatch
                   ${PROJECT_SOURCE_DIR}/scripts/slurm/vertexmill-merge.sbatch
          DESTINATION ${CMAKE_INSTALL_DATADIR}/vertexmill/slurm)
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${VERTEXMILL_DOC_DIR}/docs FILES_MATCHING PATTERN "*.md")

# Libraries compiled into the executables bring their licence texts along (Debian's copyright
# files of the packages the build is made from). On Linux those are the header-only JSON library,
# xxHash and BLAKE3: the shared libraries the package depends on install their own. The Windows
# executables carry every library in them.
set(VERTEXMILL_BUNDLED_LICENCES
  nlohmann-json /usr/share/doc/nlohmann-json3-dev/copyright
  xxhash /usr/share/doc/libxxhash-dev/copyright
  blake3 /usr/share/doc/librust-blake3-dev/copyright)
if(WIN32)
  list(APPEND VERTEXMILL_BUNDLED_LICENCES
    fmt /usr/share/doc/libfmt-dev/copyright
    spdlog /usr/share/doc/libspdlog-dev/copyright
    meshoptimizer /usr/share/doc/libmeshoptimizer-dev/copyright
    zlib /usr/share/doc/libz-mingw-w64-dev/copyright
    tinyxml2 /usr/share/doc/libtinyxml2-dev/copyright
    libpng /usr/share/doc/libpng-dev/copyright
    assimp ${VERTEXMILL_MINGW_ASSIMP_LICENCES}/assimp.txt
    minizip ${VERTEXMILL_MINGW_ASSIMP_LICENCES}/minizip.txt
    utfcpp /usr/share/doc/libutfcpp-dev/copyright
    stb /usr/share/doc/libstb-dev/copyright
    mingw-w64 /usr/share/doc/mingw-w64-x86-64-dev/copyright)
endif()
while(VERTEXMILL_BUNDLED_LICENCES)
  list(POP_FRONT VERTEXMILL_BUNDLED_LICENCES name file)
  if(NOT EXISTS ${file})
    message(FATAL_ERROR "${file} not found: the licence of ${name} must travel with the tools "
                        "(scripts/install-deps.sh installs it)")
  endif()
  install(FILES ${file} DESTINATION ${VERTEXMILL_DOC_DIR}/licences RENAME ${name}.txt)
endwhile()

set(CPACK_PACKAGE_NAME vertexmill)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "vertexmill")
set(CPACK_PACKAGE_CONTACT "vertexmill maintainers <vertexmill@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Asset compiler: .primitives meshes to packed .geometry files")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
  "vertexmill converts .primitives models into relocatable .geometry files, one file or a whole tree; "
  "geometry_inspect shows and validates .geometry files; primitives_from_obj imports OBJ meshes.")
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_SOURCE_GENERATOR "")
if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_SYSTEM_NAME win64)
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION devel)
  # Depends worked out from the shared libraries the tools link (dpkg-shlibdeps, from dpkg-dev).
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # and those vertexmill loads when first used, which no link names (lib/content_cache): libcurl
  # for --cache-url, libcrypto for the cache and --shard. The versions are those of the oldest
  # packages with every function it looks up.
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libcurl4 (>= 7.16.2), libssl3 (>= 3.0.0)")
endif()
include(CPack)
