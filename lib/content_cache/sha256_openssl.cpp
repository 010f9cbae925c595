#include "content_cache/sha256.hpp"

#include "cstdmf/debug.hpp"

#include <openssl/evp.h>

namespace content_cache
{

struct Sha256::State
{
  EVP_MD_CTX* context = nullptr;
  ~State() { EVP_MD_CTX_free(context); }
};

Sha256::Sha256() : m_state(std::make_unique<State>())
{
  m_state->context = EVP_MD_CTX_new();
  // Fails only when memory is exhausted or the library is broken; nothing sensible goes on then.
  ZR_ASSERT(m_state->context && EVP_DigestInit_ex(m_state->context, EVP_sha256(), nullptr) == 1);
}

Sha256::~Sha256() = default;

void Sha256::update(std::span<const std::byte> bytes)
{
  if (!bytes.empty())
    ZR_ASSERT(EVP_DigestUpdate(m_state->context, bytes.data(), bytes.size()) == 1);
}

Digest Sha256::finish()
{
  Digest digest{};
  unsigned int size = 0;
  ZR_ASSERT(EVP_DigestFinal_ex(m_state->context, digest.data(), &size) == 1 && size == digest.size());
  return digest;
}

} // namespace content_cache
