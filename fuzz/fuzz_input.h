// What the fuzz targets share: the input read through a seekable stream and through a
// one-way stream (a pipe), which take different paths in the directory reader (seeking against
// reading ahead into memory) and must come to the same result; and a check that stops the run.
#ifndef MVDA_FUZZ_FUZZ_INPUT_H_
#define MVDA_FUZZ_FUZZ_INPUT_H_

#include <mvda/platform/stream.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>

namespace fuzz {

// Front to back, no seeking, no length.
class OneWayBuf : public std::streambuf {
 public:
  explicit OneWayBuf(std::string bytes) : bytes_(std::move(bytes)) {
    setg(bytes_.data(), bytes_.data(), bytes_.data() + bytes_.size());
  }

 private:
  std::string bytes_;
};

inline void Require(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
  }
}

// Reads `bytes` into both objects, one each way, and requires the two results to agree.
inline bool ReadEachWay(const std::string& bytes, UStreamBase& seekable_into,
                        UStreamBase& piped_into) {
  std::istringstream seekable(bytes);
  OneWayBuf pipe(bytes);
  std::istream piped(&pipe);
  const bool ok = StreamIn(seekable_into, seekable);
  Require(StreamIn(piped_into, piped) == ok, "seekable and one-way reads disagree");
  return ok;
}

// Writes an object that was read and reads it back into `again`.
inline bool RoundTrip(const UStreamBase& object, UStreamBase& again) {
  std::ostringstream os;
  Require(StreamOut(object, os), "an object read back cannot be written");
  std::istringstream is(os.str());
  return StreamIn(again, is);
}

// The bytes an object writes.
inline std::string Bytes(const UStreamBase& object) {
  std::ostringstream os;
  Require(StreamOut(object, os), "an object read cannot be written");
  return os.str();
}

// For an object read from outside: it writes, reads back into `again`, and `again` writes the
// same bytes (reading loses nothing the writer keeps, and invents nothing).
inline void RequireStableRoundTrip(const UStreamBase& object, UStreamBase& again) {
  const std::string first = Bytes(object);
  std::istringstream is(first);
  Require(StreamIn(again, is), "what an object wrote does not read back");
  Require(Bytes(again) == first, "an object read back writes other bytes");
}

}  // namespace fuzz

#endif  // MVDA_FUZZ_FUZZ_INPUT_H_
