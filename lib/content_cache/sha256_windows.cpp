#include "content_cache/sha256.hpp"

#include "cstdmf/debug.hpp"

#include <windows.h>
#include <bcrypt.h>

namespace content_cache
{

struct Sha256::State
{
  BCRYPT_ALG_HANDLE algorithm = nullptr;
  BCRYPT_HASH_HANDLE hash = nullptr;
  ~State()
  {
    if (hash)
      BCryptDestroyHash(hash);
    if (algorithm)
      BCryptCloseAlgorithmProvider(algorithm, 0);
  }
};

bool sha256Available(std::string&)
{
  return true;
}

Sha256::Sha256() : m_state(std::make_unique<State>())
{
  ZR_ASSERT(BCRYPT_SUCCESS(BCryptOpenAlgorithmProvider(&m_state->algorithm, BCRYPT_SHA256_ALGORITHM, nullptr, 0)));
  ZR_ASSERT(BCRYPT_SUCCESS(BCryptCreateHash(m_state->algorithm, &m_state->hash, nullptr, 0, nullptr, 0, 0)));
}

Sha256::~Sha256() = default;

void Sha256::update(std::span<const std::byte> bytes)
{
  // BCryptHashData takes at most 4 GiB at once.
  constexpr size_t kChunk = 1u << 30;
  while (!bytes.empty())
  {
    const size_t size = bytes.size() < kChunk ? bytes.size() : kChunk;
    auto* data = reinterpret_cast<PUCHAR>(const_cast<std::byte*>(bytes.data()));
    ZR_ASSERT(BCRYPT_SUCCESS(BCryptHashData(m_state->hash, data, static_cast<ULONG>(size), 0)));
    bytes = bytes.subspan(size);
  }
}

Digest Sha256::finish()
{
  Digest digest{};
  ZR_ASSERT(BCRYPT_SUCCESS(BCryptFinishHash(m_state->hash, digest.data(), static_cast<ULONG>(digest.size()), 0)));
  return digest;
}

} // namespace content_cache
