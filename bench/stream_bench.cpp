// Streaming a 10000 x 500 float matrix (1% missing) out to memory and back in, through a
// std::stringstream and through a memory stream over a buffer reserved ahead (what a host that
// knows the size of its project file does). Two baselines: the element bytes copied row by row
// into a reserved buffer (the rate no stream can beat), and the stream's bytes written into a
// bare std::ostringstream (the rate no writer into a string stream can beat). Bytes are the
// stream's bytes per iteration.
#include <mvda/containers/data_matrix.h>
#include <mvda/platform/stream.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

constexpr int kRows = 10000;
constexpr int kColumns = 500;

const NCDataMatrix<float>& Source() {
  static const NCDataMatrix<float> source = [] {
    NCDataMatrix<float> m(kRows, kColumns, 0.0f);
    for (int i = 1; i <= kRows; ++i)
      for (int j = 1; j <= kColumns; ++j)
        m(i, j, (i * 131 + j * 7) % 100 == 0 ? -99.0f : static_cast<float>((i * 31 + j) % 97));
    return m;
  }();
  return source;
}

// A stream buffer over a std::vector<char>: writes append (the vector is reserved ahead, so they
// never reallocate), reads take the bytes in place and can seek, so readers know the length.
class VectorBuf : public std::streambuf {
 public:
  explicit VectorBuf(std::vector<char>& bytes) : bytes_(bytes) { Rewind(); }
  void Rewind() { setg(bytes_.data(), bytes_.data(), bytes_.data() + bytes_.size()); }

 protected:
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    bytes_.insert(bytes_.end(), s, s + n);
    return n;
  }
  int_type overflow(int_type c) override {
    if (!traits_type::eq_int_type(c, traits_type::eof()))
      bytes_.push_back(traits_type::to_char_type(c));
    return traits_type::not_eof(c);
  }
  pos_type seekoff(off_type off, std::ios_base::seekdir dir, std::ios_base::openmode) override {
    const off_type base = dir == std::ios_base::beg   ? 0
                          : dir == std::ios_base::cur ? gptr() - eback()
                                                      : egptr() - eback();
    if (base + off < 0 || base + off > egptr() - eback()) return pos_type(off_type(-1));
    setg(eback(), eback() + base + off, egptr());
    return pos_type(base + off);
  }
  pos_type seekpos(pos_type pos, std::ios_base::openmode which) override {
    return seekoff(off_type(pos), std::ios_base::beg, which);
  }

 private:
  std::vector<char>& bytes_;
};

std::string SourceBytes() {
  std::ostringstream os;
  StreamOut(Source(), os);
  return os.str();
}

void SetStreamBytes(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
}

void BM_WriteStringStream(benchmark::State& state) {
  const NCDataMatrix<float>& m = Source();
  std::size_t size = 0;
  for (auto _ : state) {
    std::ostringstream os;
    StreamOut(m, os);
    size = static_cast<std::size_t>(os.tellp());
    benchmark::DoNotOptimize(size);
  }
  SetStreamBytes(state, size);
  if (size != SourceBytes().size()) state.SkipWithError("the stream has the wrong length");
}
BENCHMARK(BM_WriteStringStream)->Unit(benchmark::kMillisecond);

void BM_WriteMemory(benchmark::State& state) {
  const NCDataMatrix<float>& m = Source();
  const std::string expected = SourceBytes();
  std::vector<char> bytes;
  bytes.reserve(expected.size());
  for (auto _ : state) {
    bytes.clear();
    VectorBuf buf(bytes);
    std::ostream os(&buf);
    StreamOut(m, os);
    benchmark::DoNotOptimize(bytes.data());
  }
  SetStreamBytes(state, bytes.size());
  if (std::string(bytes.begin(), bytes.end()) != expected)
    state.SkipWithError("the memory stream differs from the string stream");
}
BENCHMARK(BM_WriteMemory)->Unit(benchmark::kMillisecond);

void BM_ReadStringStream(benchmark::State& state) {
  const std::string bytes = SourceBytes();
  NCDataMatrix<float> read;
  bool ok = true;
  for (auto _ : state) {
    state.PauseTiming();
    std::istringstream is(bytes);  // its copy of the bytes is not the reader's work
    state.ResumeTiming();
    ok = StreamIn(read, is) && ok;
  }
  SetStreamBytes(state, bytes.size());
  if (!ok || !(read == Source()) || read.GetNumMisVal() != Source().GetNumMisVal())
    state.SkipWithError("the matrix read back differs");
}
BENCHMARK(BM_ReadStringStream)->Unit(benchmark::kMillisecond);

void BM_ReadMemory(benchmark::State& state) {
  const std::string source = SourceBytes();
  std::vector<char> bytes(source.begin(), source.end());
  NCDataMatrix<float> read;
  bool ok = true;
  for (auto _ : state) {
    VectorBuf buf(bytes);
    std::istream is(&buf);
    ok = StreamIn(read, is) && ok;
  }
  SetStreamBytes(state, bytes.size());
  if (!ok || !(read == Source()) || read.GetNumMisVal() != Source().GetNumMisVal())
    state.SkipWithError("the matrix read back differs");
}
BENCHMARK(BM_ReadMemory)->Unit(benchmark::kMillisecond);

// Baseline for the string stream: the same bytes, already in memory, written into a fresh
// std::ostringstream in 1 MiB pieces. Its buffer grows by doubling into fresh pages, which sets
// the pace of any writer into a string stream.
void BM_StringStreamOnly(benchmark::State& state) {
  const std::string bytes = SourceBytes();
  constexpr std::size_t kPiece = 1 << 20;
  std::size_t size = 0;
  for (auto _ : state) {
    std::ostringstream os;
    for (std::size_t at = 0; at < bytes.size(); at += kPiece)
      os.write(bytes.data() + at,
               static_cast<std::streamsize>(std::min(kPiece, bytes.size() - at)));
    size = static_cast<std::size_t>(os.tellp());
    benchmark::DoNotOptimize(size);
  }
  SetStreamBytes(state, size);
  if (size != bytes.size()) state.SkipWithError("the string stream lost bytes");
}
BENCHMARK(BM_StringStreamOnly)->Unit(benchmark::kMillisecond);

// Baseline: the element bytes of every row copied into a reserved buffer.
void BM_CopyRowBytes(benchmark::State& state) {
  const NCDataMatrix<float>& m = Source();
  const std::size_t row_bytes = kColumns * sizeof(float);
  std::vector<char> bytes(static_cast<std::size_t>(kRows) * row_bytes);
  for (auto _ : state) {
    char* out = bytes.data();
    for (const NCDataVector<float>& row : m) {
      std::memcpy(out, row.begin(), row_bytes);
      out += row_bytes;
    }
    benchmark::DoNotOptimize(bytes.data());
  }
  SetStreamBytes(state, bytes.size());
  if (std::memcmp(bytes.data() + (bytes.size() - row_bytes), m[kRows].begin(), row_bytes) != 0)
    state.SkipWithError("the last row was not copied");
}
BENCHMARK(BM_CopyRowBytes)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
