#pragma once
// Reading Wavefront OBJ meshes: positions (v), texture coordinates (vt), normals (vn) and
// polygonal faces (f) in the forms v, v/vt, v//vn and v/vt/vn, with positive or negative
// (relative) indices. Polygons are fan-triangulated. Every change of object (o), group (g) or
// material (usemtl) starts a new render set; other statements are ignored.

#include "primitives_from_obj/obj_mesh.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace objimport
{

// Longest set name kept after sanitising (before a uniqueness suffix).
inline constexpr size_t kMaxSetNameLength = 96;

// `name` with every byte outside [A-Za-z0-9_-] replaced by '_' and cut to kMaxSetNameLength
// bytes; "mesh" when nothing is left.
std::string sanitizeSetName(std::string_view name);

// Parses OBJ text. `fileName` is only used in messages and, through its stem, as the name of the
// render set of a file without o/g/usemtl statements. Faces come out triangulated, grouped into
// non-empty sets with unique sanitised names.
// On malformed input (a bad or non-finite number, a missing coordinate, a face with fewer than
// three corners, a face index that is zero, out of range or relative past the start, a file
// without faces) returns false with `error` set to "<fileName>:<line>: <what>" (or
// "<fileName>: no faces found"); `mesh` then holds a partial result to be discarded.
[[nodiscard]] bool parseObj(std::string_view text, std::string_view fileName, ObjMesh& mesh, std::string& error);

// Reads a whole file into `bytes`. Files compressed with gzip (any name, usually ".obj.gz") are
// inflated; other files are read as they are. Returns false with `error` naming the file when it
// cannot be opened or read, or when the compressed stream is corrupt or truncated.
[[nodiscard]] bool readFileBytes(const std::string& path, std::vector<char>& bytes, std::string& error);

// Turns the bytes of an OBJ file into UTF-8 text in place: a UTF-8 byte-order mark is dropped;
// UTF-16 (little- or big-endian, with a byte-order mark, or without one when the text starts with
// an ASCII character) is converted. Anything else is left as it is. Returns false with `error`
// naming the file for UTF-16 with an odd number of bytes.
[[nodiscard]] bool decodeObjText(std::vector<char>& bytes, std::string_view fileName, std::string& error);

// readFileBytes, decodeObjText, then parseObj with `path` as the file name.
[[nodiscard]] bool loadObj(const std::string& path, ObjMesh& mesh, std::string& error);

} // namespace objimport
