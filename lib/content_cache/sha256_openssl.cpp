#include "content_cache/sha256.hpp"

#include "content_cache/loaded_library.hpp"

#include "cstdmf/critical_error.hpp"
#include "cstdmf/debug.hpp"
#include "cstdmf/platform.hpp"

#include <openssl/evp.h>

#include <memory>
#include <mutex>
#include <type_traits>

namespace content_cache
{

namespace
{
// libcrypto is loaded on first use rather than linked: only runs with a cache or shards hash, and
// loading it costs every other run about half a millisecond at start-up.
constexpr const char* kCryptoLibrary = "libcrypto.so.3";

struct Crypto
{
  std::unique_ptr<platform::SharedLibrary> library;
  decltype(&EVP_MD_CTX_new) contextNew = nullptr;
  decltype(&EVP_MD_CTX_free) contextFree = nullptr;
  decltype(&EVP_sha256) sha256 = nullptr;
  decltype(&EVP_DigestInit_ex) digestInit = nullptr;
  decltype(&EVP_DigestUpdate) digestUpdate = nullptr;
  decltype(&EVP_DigestFinal_ex) digestFinal = nullptr;
};

// Loaded once for the process. Null with the reason when it cannot be used.
const Crypto* loadCrypto(std::string& problem)
{
  return loadLibraryOnce<Crypto>(
    kCryptoLibrary,
    [](Crypto& api, auto& resolve) -> std::string {
      resolve(api.contextNew, "EVP_MD_CTX_new");
      resolve(api.contextFree, "EVP_MD_CTX_free");
      resolve(api.sha256, "EVP_sha256");
      resolve(api.digestInit, "EVP_DigestInit_ex");
      resolve(api.digestUpdate, "EVP_DigestUpdate");
      resolve(api.digestFinal, "EVP_DigestFinal_ex");
      return {};
    },
    problem);
}

const Crypto& crypto()
{
  std::string problem;
  const Crypto* api = loadCrypto(problem);
  if (!api)
    ZR_CRITICAL_ERROR(("SHA-256 is not available: " + problem).c_str());
  return *api;
}
} // namespace

bool sha256Available(std::string& problem)
{
  return loadCrypto(problem) != nullptr;
}

struct Sha256::State
{
  EVP_MD_CTX* context = nullptr;
  ~State()
  {
    if (context)
      crypto().contextFree(context);
  }
};

Sha256::Sha256() : m_state(std::make_unique<State>())
{
  const Crypto& api = crypto();
  m_state->context = api.contextNew();
  // Fails only when memory is exhausted or the library is broken; nothing sensible goes on then.
  ZR_ASSERT(m_state->context && api.digestInit(m_state->context, api.sha256(), nullptr) == 1);
}

Sha256::~Sha256() = default;

void Sha256::update(std::span<const std::byte> bytes)
{
  if (!bytes.empty())
    ZR_ASSERT(crypto().digestUpdate(m_state->context, bytes.data(), bytes.size()) == 1);
}

Digest Sha256::finish()
{
  Digest digest{};
  unsigned int size = 0;
  ZR_ASSERT(crypto().digestFinal(m_state->context, digest.data(), &size) == 1 && size == digest.size());
  return digest;
}

} // namespace content_cache
