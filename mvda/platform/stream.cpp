#include <mvda/platform/error.h>
#include <mvda/platform/stream.h>

#include <istream>
#include <ostream>
#include <utility>

TwStreamError::TwStreamError() : std::runtime_error("Error when reading from stream") {}
TwStreamError::TwStreamError(const std::string& message) : std::runtime_error(message) {}
TwStreamError::~TwStreamError() = default;

UStreamableData::UStreamableData(std::string magic, std::int32_t version)
    : magic_(std::move(magic)), version_(version), stream_version_(version) {
  if (magic_.empty() || magic_.size() > kMaxMagicLength)
    throw NCError("UStreamableData: magic \"" + magic_ + "\" must have 1 to " +
                  std::to_string(kMaxMagicLength) + " bytes");
}

bool UStreamableData::Write(std::ostream& os) const {
  return WriteFourBytes(static_cast<std::uint32_t>(magic_.size()), os) &&
         WriteBytes(magic_.data(), magic_.size(), os) && WriteFourBytes(version_, os);
}

bool UStreamableData::Check(std::istream& is, std::int32_t* version) {
  std::uint32_t length = 0;
  char magic[kMaxMagicLength];
  std::int32_t read_version = 0;
  // The length is compared before any byte of the magic is read, so a corrupt length costs
  // nothing.
  if (!ReadFourBytes(length, is) || length != magic_.size() || !ReadBytes(magic, length, is) ||
      magic_.compare(0, length, magic, length) != 0 || !ReadFourBytes(read_version, is)) {
    is.setstate(std::ios::failbit);
    return false;
  }
  stream_version_.store(read_version);
  if (version) *version = read_version;
  return true;
}

UStreamBase::~UStreamBase() = default;

bool UStreamBase::UStreamableStartWrite(std::ostream& os) const { return static_cast<bool>(os); }
bool UStreamBase::UStreamableStartRead(std::istream& is) { return static_cast<bool>(is); }
bool UStreamBase::UStreamableWrite(std::ostream& os) const { return static_cast<bool>(os); }
bool UStreamBase::UStreamableRead(std::istream& is) { return static_cast<bool>(is); }
bool UStreamBase::UStreamableWriteBases(std::ostream& os) const {
  return UStreamBase::UStreamableStartWrite(os);
}
bool UStreamBase::UStreamableReadBases(std::istream& is) {
  return UStreamBase::UStreamableStartRead(is);
}

void UStreamBase::UStreamableReset() const {
  written_by_ = nullptr;
  read_by_ = nullptr;
}

bool UStreamBase::MarkUStreamWritten(const UStreamableData& record) const {
  if (written_by_ == nullptr) {
    written_by_ = &record;
    return true;
  }
  return written_by_ != &record;
}

bool UStreamBase::MarkUStreamRead(const UStreamableData& record) {
  if (read_by_ == nullptr) {
    read_by_ = &record;
    return true;
  }
  return read_by_ != &record;
}

std::ostream& operator<<(std::ostream& os, const UStreamBase& object) {
  if (os && !object.UStreamableStartWrite(os)) os.setstate(std::ios::failbit);
  return os;
}

std::istream& operator>>(std::istream& is, UStreamBase& object) {
  if (is && !object.UStreamableStartRead(is)) is.setstate(std::ios::failbit);
  return is;
}

bool ReadNestedObject(std::istream& is, UStreamBase& object, bool throw_error) {
  if (is >> object) return true;
  if (throw_error) throw TwStreamError();
  return false;
}

namespace {

// Clears the pass flags on every way out of a pass.
class PassGuard {
 public:
  explicit PassGuard(const UStreamBase& object) : object_(object) { object_.UStreamableReset(); }
  PassGuard(const PassGuard&) = delete;
  PassGuard& operator=(const PassGuard&) = delete;
  ~PassGuard() { object_.UStreamableReset(); }

 private:
  const UStreamBase& object_;
};

}  // namespace

bool StreamOut(const UStreamBase& object, std::ostream& os) {
  PassGuard guard(object);
  return static_cast<bool>(os << object);
}

bool StreamIn(UStreamBase& object, std::istream& is) {
  PassGuard guard(object);
  return static_cast<bool>(is >> object);
}
