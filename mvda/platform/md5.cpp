#include <mvda/platform/error.h>
#include <mvda/platform/md5.h>

#include <cstdint>

#include <md5.h>

struct MD5::Context {
  MD5_CTX state;
};

MD5::MD5() : context_(std::make_unique<Context>()) { MD5Init(&context_->state); }

MD5::MD5(const MD5& other)
    : context_(std::make_unique<Context>(*other.context_)), finished_(other.finished_) {}

MD5& MD5::operator=(const MD5& other) {
  *context_ = *other.context_;
  finished_ = other.finished_;
  return *this;
}

MD5::~MD5() = default;

void MD5::Update(const void* data, std::size_t count) {
  if (finished_) throw NCError("MD5::Update: the digest has already been taken");
  // libmd takes a size_t length; feed in bounded pieces anyway, so that no platform's length type
  // can truncate a large buffer.
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  constexpr std::size_t kPiece = std::size_t(1) << 30;
  while (count > 0) {
    const std::size_t n = count < kPiece ? count : kPiece;
    MD5Update(&context_->state, bytes, n);
    bytes += n;
    count -= n;
  }
}

std::string MD5::HexDigest() {
  if (finished_) throw NCError("MD5::HexDigest: the digest has already been taken");
  std::uint8_t digest[MD5_DIGEST_LENGTH];
  MD5Final(digest, &context_->state);
  finished_ = true;
  static const char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * MD5_DIGEST_LENGTH);
  for (const std::uint8_t b : digest) {
    text += kHex[b >> 4];
    text += kHex[b & 15];
  }
  return text;
}
