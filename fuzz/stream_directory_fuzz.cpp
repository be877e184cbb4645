// libFuzzer target for the stream readers of mvda/platform: InputStreamDirectory (nested to any
// depth), the class record check, the entry streams and the reads a container makes from them.
// Every input is read twice, through a seekable stream and through a one-way stream (a pipe);
// the two take different paths (seeking against reading ahead into memory) and must agree.
#include <mvda/platform/stream.h>

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz_input.h"

namespace {

void Walk(std::istream& is, std::string& trace);

// A record "NCDV" version 4 and a directory, read as containers read themselves.
class FuzzObject : public UStreamBase {
 public:
  explicit FuzzObject(std::string& trace) : trace_(trace) {}
  bool UStreamableStartRead(std::istream& is) override {
    static UStreamableData record("NCDV", 4);
    if (!MarkUStreamRead(record)) return true;
    std::int32_t version = 0;
    if (!record.Check(is, &version) || version != 4) return false;
    Walk(is, trace_);
    return static_cast<bool>(is);
  }

 private:
  std::string& trace_;
};

// Reads entries 0..4 of a directory: 0 a nested directory, 1 an embedded object, 2 a counted
// array, 3 a string, 4 seeks inside the entry. Appends what it reads to `trace`.
void Walk(std::istream& is, std::string& trace) {
  InputStreamDirectory dir(is);
  for (int id = 0; id < 5; ++id) {
    std::istream* in = dir.GetInput(id);
    if (!in) continue;
    const long long left = StreamBytesLeft(*in);
    if (left < 0) std::abort();  // an entry always knows its length
    trace += static_cast<char>('0' + id);
    if (id == 0) {
      Walk(*in, trace);
    } else if (id == 1) {
      FuzzObject object(trace);
      trace += ReadNestedObject(*in, object) ? 'y' : 'n';
    } else if (id == 2) {
      std::uint32_t n = 0;
      if (ReadFourBytes(n, *in) && StreamHolds(*in, n, sizeof(float))) {
        std::vector<float> values(n);
        if (ReadArray(values.data(), n, sizeof(float), *in))
          trace.append(reinterpret_cast<const char*>(values.data()), n * sizeof(float));
      }
    } else if (id == 3) {
      std::string text;
      if (ReadBinaryString(text, *in, static_cast<std::uint32_t>(left))) trace += text;
    } else {
      char c = 0;
      in->seekg(left / 2);
      if (in->get(c)) trace += c;
      in->clear();
      in->seekg(0, std::ios::end);
      if (in->tellg() != std::streampos(left)) std::abort();
      in->seekg(0);
      if (in->get(c)) trace += c;
    }
  }
  trace += dir.Close() ? 'Y' : 'N';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  std::istringstream seekable(bytes);
  fuzz::OneWayBuf pipe(bytes);
  std::istream piped(&pipe);
  std::string seekable_trace, piped_trace;
  Walk(seekable, seekable_trace);
  Walk(piped, piped_trace);
  const bool ok = seekable_trace.back() == 'Y';
  if (ok != (piped_trace.back() == 'Y') || (ok && seekable_trace != piped_trace)) std::abort();
  return 0;
}
