#include "primitives_from_obj/obj_reader.hpp"

#include "cstdmf/path_utils.hpp"

#include <fmt/format.h>
#include <zlib.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <system_error>
#include <unordered_set>

namespace objimport
{

namespace
{

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; }

const char* skipSpaces(const char* p, const char* end)
{
  while (p < end && isSpace(*p))
    ++p;
  return p;
}

const char* tokenEnd(const char* p, const char* end)
{
  while (p < end && !isSpace(*p))
    ++p;
  return p;
}

// The text of a token for a message, cut short so that a binary file does not flood the console.
std::string quoteToken(const char* begin, const char* end)
{
  constexpr size_t kMaxShown = 40;
  const size_t size = static_cast<size_t>(end - begin);
  std::string text(begin, size < kMaxShown ? size : kMaxShown);
  for (char& c : text)
    if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7F)
      c = '?';
  if (size > kMaxShown)
    text += "...";
  return "'" + text + "'";
}

// zlib's message for a stream, without the "<path>: " it puts in front.
std::string gzMessage(const std::string& path, const char* message)
{
  std::string_view text = message != nullptr ? message : "";
  if (text.size() > path.size() + 2 && text.substr(0, path.size()) == path && text.substr(path.size(), 2) == ": ")
    text.remove_prefix(path.size() + 2);
  return std::string(text);
}

std::string fileStem(std::string_view fileName)
{
  const size_t slash = fileName.find_last_of("/\\");
  std::string_view base = slash == std::string_view::npos ? fileName : fileName.substr(slash + 1);
  for (std::string_view suffix : {std::string_view(".gz"), std::string_view(".obj")})
    if (base.size() > suffix.size() && base.substr(base.size() - suffix.size()) == suffix)
      base.remove_suffix(suffix.size());
  const size_t dot = base.find_last_of('.');
  if (dot != std::string_view::npos && dot > 0)
    base = base.substr(0, dot);
  return std::string(base);
}

class ObjParser
{
public:
  ObjParser(std::string_view fileName, ObjMesh& mesh) : m_fileName(fileName), m_mesh(mesh) {}

  bool run(std::string_view text, std::string& error)
  {
    m_mesh = ObjMesh{};
    reserve(text);
    const char* p = text.data();
    const char* const end = p + text.size();
    while (p < end)
    {
      ++m_line;
      const char* eol = static_cast<const char*>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
      if (eol == nullptr)
        eol = end;
      if (!parseLine(p, eol))
      {
        error = std::move(m_error);
        return false;
      }
      p = eol + 1;
    }
    if (m_mesh.sets.empty())
    {
      error = fmt::format("{}: no faces found", m_fileName);
      return false;
    }
    return true;
  }

private:
  // Sizes the pools from a quick count of statements, so that large files do not grow them by
  // repeated reallocation.
  void reserve(std::string_view text)
  {
    size_t positions = 0, texcoords = 0, normals = 0, faces = 0;
    const char* p = text.data();
    const char* const end = p + text.size();
    while (p + 1 < end)
    {
      if (p[0] == 'v')
      {
        if (p[1] == ' ')
          ++positions;
        else if (p[1] == 't')
          ++texcoords;
        else if (p[1] == 'n')
          ++normals;
      }
      else if (p[0] == 'f' && p[1] == ' ')
        ++faces;
      const void* eol = std::memchr(p, '\n', static_cast<size_t>(end - p));
      if (eol == nullptr)
        break;
      p = static_cast<const char*>(eol) + 1;
    }
    m_mesh.positions.reserve(positions);
    m_mesh.texcoords.reserve(texcoords);
    m_mesh.normals.reserve(normals);
    m_mesh.corners.reserve(faces * 3);
  }

  template <typename... Args>
  bool fail(fmt::format_string<Args...> format, Args&&... args)
  {
    m_error = fmt::format("{}:{}: {}", m_fileName, m_line, fmt::format(format, std::forward<Args>(args)...));
    return false;
  }

  bool parseLine(const char* p, const char* eol)
  {
    p = skipSpaces(p, eol);
    if (p == eol || *p == '#')
      return true;
    const char* keyEnd = tokenEnd(p, eol);
    const std::string_view keyword(p, static_cast<size_t>(keyEnd - p));
    const char* rest = skipSpaces(keyEnd, eol);
    if (keyword == "v")
      return parseVector3(rest, eol, "position", m_mesh.positions);
    if (keyword == "f")
      return parseFace(rest, eol);
    if (keyword == "vt")
      return parseTexcoord(rest, eol);
    if (keyword == "vn")
      return parseVector3(rest, eol, "normal", m_mesh.normals);
    if (keyword == "o")
    {
      m_objectName = trimmed(rest, eol);
      m_groupName.clear();
      m_setChanged = true;
    }
    else if (keyword == "g")
    {
      m_groupName = trimmed(rest, eol);
      m_setChanged = true;
    }
    else if (keyword == "usemtl")
    {
      m_materialName = trimmed(rest, eol);
      m_setChanged = true;
    }
    // Anything else (mtllib, s, l, p, vp, curves, ...) does not contribute to render sets.
    return true;
  }

  static std::string trimmed(const char* p, const char* eol)
  {
    while (eol > p && isSpace(eol[-1]))
      --eol;
    return std::string(p, static_cast<size_t>(eol - p));
  }

  // Reads one number token at p and moves p past it.
  bool parseFloat(const char*& p, const char* eol, const char* what, float& value)
  {
    p = skipSpaces(p, eol);
    if (p == eol)
      return fail("{} has too few coordinates", what);
    const char* const end = tokenEnd(p, eol);
    const char* first = p;
    if (*first == '+' && first + 1 < end && first[1] != '-' && first[1] != '+')
      ++first; // from_chars does not take an explicit plus sign
    auto [ptr, ec] = std::from_chars(first, end, value);
    if (ec == std::errc::result_out_of_range)
    {
      // Underflow is harmless (the value is as good as zero); overflow is an error.
      double wide = 0.0;
      auto [widePtr, wideEc] = std::from_chars(first, end, wide);
      if (wideEc == std::errc() && widePtr == end && std::fabs(wide) < 1.0)
      {
        value = static_cast<float>(wide);
        ptr = widePtr;
        ec = std::errc();
      }
      else
        return fail("number {} in {} is out of range", quoteToken(p, end), what);
    }
    if (ec != std::errc() || ptr != end)
      return fail("bad number {} in {}", quoteToken(p, end), what);
    if (!std::isfinite(value))
      return fail("number {} in {} is not finite", quoteToken(p, end), what);
    p = end;
    return true;
  }

  // Checks that what is left of a statement consists of numbers only (ignored ones, such as the
  // optional weight of a position or vertex colours).
  bool checkTrailingNumbers(const char* p, const char* eol, const char* what)
  {
    float ignored = 0.0f;
    for (p = skipSpaces(p, eol); p < eol; p = skipSpaces(p, eol))
    {
      if (*p == '#')
        return true;
      if (!parseFloat(p, eol, what, ignored))
        return false;
    }
    return true;
  }

  template <typename T>
  bool checkPoolRoom(const std::vector<T>& pool, const char* what)
  {
    if (pool.size() >= kNoIndex - 1)
      return fail("too many {}s", what);
    return true;
  }

  bool parseVector3(const char* p, const char* eol, const char* what, std::vector<Vec3>& pool)
  {
    Vec3 v;
    if (!checkPoolRoom(pool, what) || !parseFloat(p, eol, what, v.x) || !parseFloat(p, eol, what, v.y) ||
        !parseFloat(p, eol, what, v.z) || !checkTrailingNumbers(p, eol, what))
      return false;
    pool.push_back(v);
    return true;
  }

  bool parseTexcoord(const char* p, const char* eol)
  {
    const char* what = "texture coordinate";
    Vec2 uv;
    if (!checkPoolRoom(m_mesh.texcoords, what) || !parseFloat(p, eol, what, uv.x))
      return false;
    // v is optional (one-dimensional textures); a third component is ignored.
    p = skipSpaces(p, eol);
    if (p < eol && *p != '#' && !parseFloat(p, eol, what, uv.y))
      return false;
    if (!checkTrailingNumbers(p, eol, what))
      return false;
    m_mesh.texcoords.push_back(uv);
    return true;
  }

  // One index of a corner, resolved against the pool's current size to a zero-based index.
  bool parseIndex(const char*& p, const char* end, size_t poolSize, const char* what, const char* cornerBegin,
                  uint32_t& index)
  {
    const char* first = p;
    if (first < end && *first == '+')
      ++first;
    int64_t raw = 0;
    auto [ptr, ec] = std::from_chars(first, end, raw);
    if (ec == std::errc::result_out_of_range)
      return fail("{} index in face corner {} is out of range", what, quoteToken(cornerBegin, end));
    if (ec != std::errc() || (ptr < end && *ptr != '/'))
      return fail("bad face corner {}", quoteToken(cornerBegin, end));
    p = ptr;
    const int64_t count = static_cast<int64_t>(poolSize);
    if (raw == 0)
      return fail("{} index 0 is not valid (indices start at 1)", what);
    if (raw > 0)
    {
      if (raw > count)
        return fail("{} index {} is out of range ({} {}s defined so far)", what, raw, count, what);
      index = static_cast<uint32_t>(raw - 1);
    }
    else
    {
      if (-raw > count)
        return fail("relative {} index {} reaches before the first {} ({} defined so far)", what, raw, what, count);
      index = static_cast<uint32_t>(count + raw);
    }
    return true;
  }

  bool parseCorner(const char* p, const char* end, ObjCorner& corner)
  {
    const char* const begin = p;
    if (!parseIndex(p, end, m_mesh.positions.size(), "position", begin, corner.position))
      return false;
    corner.texcoord = kNoIndex;
    corner.normal = kNoIndex;
    if (p == end)
      return true;
    ++p; // '/'
    if (p == end)
      return fail("bad face corner {}", quoteToken(begin, end));
    if (*p != '/')
    {
      if (!parseIndex(p, end, m_mesh.texcoords.size(), "texture coordinate", begin, corner.texcoord))
        return false;
    }
    if (p == end)
      return true;
    if (*p != '/' || p + 1 == end)
      return fail("bad face corner {}", quoteToken(begin, end));
    ++p;
    if (!parseIndex(p, end, m_mesh.normals.size(), "normal", begin, corner.normal))
      return false;
    if (p != end)
      return fail("bad face corner {}", quoteToken(begin, end));
    return true;
  }

  bool parseFace(const char* p, const char* eol)
  {
    m_polygon.clear();
    for (p = skipSpaces(p, eol); p < eol && *p != '#'; p = skipSpaces(p, eol))
    {
      const char* end = tokenEnd(p, eol);
      ObjCorner corner;
      if (!parseCorner(p, end, corner))
        return false;
      m_polygon.push_back(corner);
      p = end;
    }
    if (m_polygon.size() < 3)
      return fail("face with {} corner{} (a face needs at least 3)", m_polygon.size(), m_polygon.size() == 1 ? "" : "s");
    if (!currentSet())
      return false;
    const ObjCorner first = m_polygon[0];
    for (size_t i = 1; i + 1 < m_polygon.size(); ++i)
    {
      m_mesh.corners.push_back(first);
      m_mesh.corners.push_back(m_polygon[i]);
      m_mesh.corners.push_back(m_polygon[i + 1]);
    }
    m_mesh.sets.back().triangleCount += m_polygon.size() - 2;
    return true;
  }

  // Makes sure the last set is the one the current o/g/usemtl state asks for. Sets are opened
  // only when a face arrives, so statements without faces never leave empty sets behind.
  bool currentSet()
  {
    if (!m_mesh.sets.empty() && !m_setChanged)
      return true;
    m_setChanged = false;
    std::string rawName;
    for (const std::string* part : {&m_objectName, &m_groupName, &m_materialName})
    {
      if (part->empty())
        continue;
      if (!rawName.empty())
        rawName += '_';
      rawName += *part;
    }
    if (rawName.empty())
      rawName = fileStem(m_fileName);
    if (!m_mesh.sets.empty() && rawName == m_currentRawName)
      return true;
    m_currentRawName = rawName;

    const std::string base = sanitizeSetName(rawName);
    std::string name = base;
    for (int suffix = 2; m_usedNames.count(name) != 0; ++suffix)
      name = fmt::format("{}_{}", base, suffix);
    m_usedNames.insert(name);
    m_mesh.sets.push_back(ObjSet{std::move(name), m_mesh.corners.size() / 3, 0});
    return true;
  }

  std::string_view m_fileName;
  ObjMesh& m_mesh;
  size_t m_line = 0;
  std::string m_error;

  std::string m_objectName;
  std::string m_groupName;
  std::string m_materialName;
  bool m_setChanged = false;
  std::string m_currentRawName;
  std::unordered_set<std::string> m_usedNames;

  std::vector<ObjCorner> m_polygon;
};

} // namespace

std::string sanitizeSetName(std::string_view name)
{
  std::string result;
  result.reserve(name.size() < kMaxSetNameLength ? name.size() : kMaxSetNameLength);
  for (char c : name)
  {
    if (result.size() == kMaxSetNameLength)
      break;
    const bool safe = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
    result += safe ? c : '_';
  }
  if (result.empty())
    result = "mesh";
  return result;
}

bool parseObj(std::string_view text, std::string_view fileName, ObjMesh& mesh, std::string& error)
{
  ObjParser parser(fileName, mesh);
  return parser.run(text, error);
}

bool readFileBytes(const std::string& path, std::vector<char>& bytes, std::string& error)
{
  bytes.clear();
  std::error_code ec;
  const std::filesystem::path fsPath = cstdmf::u8path(path);
  if (std::filesystem::is_directory(fsPath, ec))
  {
    error = fmt::format("{}: is a directory", path);
    return false;
  }
  const uintmax_t fileSize = std::filesystem::file_size(fsPath, ec);

  // gzread passes files that are not compressed through unchanged, so one path serves both.
#ifdef _WIN32
  gzFile file = gzopen_w(fsPath.c_str(), "rb"); // the UTF-16 name: gzopen would take ANSI text
#else
  gzFile file = gzopen(path.c_str(), "rb");
#endif
  if (file == nullptr)
  {
    error = fmt::format("{}: cannot open file: {}", path, std::strerror(errno));
    return false;
  }
  gzbuffer(file, 1u << 18);
  if (!ec && fileSize < (uintmax_t(1) << 32))
    bytes.reserve(static_cast<size_t>(fileSize) + 1);

  constexpr size_t kChunk = size_t(1) << 20;
  size_t used = 0;
  for (;;)
  {
    if (bytes.size() - used < kChunk)
      bytes.resize(used + kChunk > bytes.capacity() ? used + kChunk : bytes.capacity());
    const int got = gzread(file, bytes.data() + used, static_cast<unsigned>(kChunk));
    if (got < 0)
    {
      int code = Z_OK;
      const char* message = gzerror(file, &code);
      error = fmt::format("{}: cannot read file: {}", path,
                          code == Z_ERRNO ? std::string(std::strerror(errno)) : gzMessage(path, message));
      gzclose(file);
      bytes.clear();
      return false;
    }
    if (got == 0)
      break;
    used += static_cast<size_t>(got);
  }
  // A stream that ends early reads as end of file; zlib only tells through the error state.
  int code = Z_OK;
  const char* message = gzerror(file, &code);
  std::string readError = code != Z_OK ? gzMessage(path, message) : "";
  const int closeResult = gzclose(file);
  if (readError.empty() && closeResult != Z_OK)
    readError = closeResult == Z_BUF_ERROR ? "unexpected end of file" : "read error";
  if (!readError.empty())
  {
    error = fmt::format("{}: corrupt or truncated compressed data ({})", path, readError);
    bytes.clear();
    return false;
  }
  bytes.resize(used);
  return true;
}

namespace
{

void appendUtf8(std::vector<char>& out, uint32_t code)
{
  const auto put = [&](uint32_t byte) { out.push_back(static_cast<char>(byte)); };
  if (code < 0x80)
    put(code);
  else if (code < 0x800)
  {
    put(0xC0 | (code >> 6));
    put(0x80 | (code & 0x3F));
  }
  else if (code < 0x10000)
  {
    put(0xE0 | (code >> 12));
    put(0x80 | ((code >> 6) & 0x3F));
    put(0x80 | (code & 0x3F));
  }
  else
  {
    put(0xF0 | (code >> 18));
    put(0x80 | ((code >> 12) & 0x3F));
    put(0x80 | ((code >> 6) & 0x3F));
    put(0x80 | (code & 0x3F));
  }
}

} // namespace

bool decodeObjText(std::vector<char>& bytes, std::string_view fileName, std::string& error)
{
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const size_t size = bytes.size();
  if (size >= 3 && byte(0) == 0xEF && byte(1) == 0xBB && byte(2) == 0xBF)
  {
    bytes.erase(bytes.begin(), bytes.begin() + 3);
    return true;
  }
  bool littleEndian = false;
  size_t start = 0;
  if (size >= 2 && byte(0) == 0xFF && byte(1) == 0xFE)
    littleEndian = true, start = 2;
  else if (size >= 2 && byte(0) == 0xFE && byte(1) == 0xFF)
    start = 2;
  else if (size >= 2 && byte(0) != 0 && byte(1) == 0) // ASCII text in UTF-16 without a mark
    littleEndian = true;
  else if (!(size >= 2 && byte(0) == 0 && byte(1) != 0))
    return true; // UTF-8 or ASCII: read as it is
  if ((size - start) % 2 != 0)
  {
    error = fmt::format("{}: UTF-16 text with an odd number of bytes", fileName);
    return false;
  }
  std::vector<char> text;
  text.reserve((size - start) / 2);
  for (size_t i = start; i < size; i += 2)
  {
    const auto unitAt = [&](size_t at) {
      return littleEndian ? uint32_t(byte(at)) | uint32_t(byte(at + 1)) << 8 : uint32_t(byte(at)) << 8 | byte(at + 1);
    };
    uint32_t code = unitAt(i);
    if (code >= 0xD800 && code < 0xDC00 && i + 3 < size)
    {
      const uint32_t low = unitAt(i + 2);
      if (low >= 0xDC00 && low < 0xE000)
      {
        code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
        i += 2;
      }
    }
    appendUtf8(text, code);
  }
  bytes = std::move(text);
  return true;
}

bool loadObj(const std::string& path, ObjMesh& mesh, std::string& error)
{
  std::vector<char> bytes;
  if (!readFileBytes(path, bytes, error) || !decodeObjText(bytes, path, error))
    return false;
  return parseObj(std::string_view(bytes.data(), bytes.size()), path, mesh, error);
}

} // namespace objimport
