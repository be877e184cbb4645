#include <mvda/platform/byte_io.h>

#include <algorithm>
#include <cstring>
#include <istream>
#include <ostream>
#include <vector>

namespace {

bool LittleEndianHost() {
  const std::uint16_t probe = 1;
  unsigned char first;
  std::memcpy(&first, &probe, 1);
  return first == 1;
}

// Reverses each element in place; a no-op on little-endian hosts.
void ToLittleEndian(unsigned char* bytes, std::size_t count, std::size_t element_size) {
  if (LittleEndianHost() || element_size < 2) return;
  for (std::size_t i = 0; i < count; ++i)
    std::reverse(bytes + i * element_size, bytes + (i + 1) * element_size);
}

bool ValidElementSize(std::size_t size) { return size == 1 || size == 2 || size == 4 || size == 8; }

// Arrays are converted through a bounded scratch buffer so that a large matrix row costs no
// second copy of itself.
constexpr std::size_t kChunkBytes = 64 * 1024;

}  // namespace

bool WriteBytes(const void* data, std::size_t count, std::ostream& os) {
  if (count > 0) os.write(static_cast<const char*>(data), static_cast<std::streamsize>(count));
  return static_cast<bool>(os);
}

bool ReadBytes(void* data, std::size_t count, std::istream& is) {
  if (count > 0) is.read(static_cast<char*>(data), static_cast<std::streamsize>(count));
  return static_cast<bool>(is);
}

bool WriteTwoBytes(std::uint16_t value, std::ostream& os) {
  const unsigned char b[2] = {static_cast<unsigned char>(value & 0xff),
                              static_cast<unsigned char>(value >> 8)};
  return WriteBytes(b, 2, os);
}

bool ReadTwoBytes(std::uint16_t& value, std::istream& is) {
  unsigned char b[2];
  if (!ReadBytes(b, 2, is)) return false;
  value = static_cast<std::uint16_t>(b[0] | (b[1] << 8));
  return true;
}

bool WriteFourBytes(std::uint32_t value, std::ostream& os) {
  const unsigned char b[4] = {
      static_cast<unsigned char>(value & 0xff), static_cast<unsigned char>((value >> 8) & 0xff),
      static_cast<unsigned char>((value >> 16) & 0xff), static_cast<unsigned char>(value >> 24)};
  return WriteBytes(b, 4, os);
}

bool WriteFourBytes(std::int32_t value, std::ostream& os) {
  return WriteFourBytes(static_cast<std::uint32_t>(value), os);
}

bool ReadFourBytes(std::uint32_t& value, std::istream& is) {
  unsigned char b[4];
  if (!ReadBytes(b, 4, is)) return false;
  value = static_cast<std::uint32_t>(b[0]) | (static_cast<std::uint32_t>(b[1]) << 8) |
          (static_cast<std::uint32_t>(b[2]) << 16) | (static_cast<std::uint32_t>(b[3]) << 24);
  return true;
}

bool ReadFourBytes(std::int32_t& value, std::istream& is) {
  std::uint32_t raw;
  if (!ReadFourBytes(raw, is)) return false;
  value = static_cast<std::int32_t>(raw);
  return true;
}

bool WriteArray(const void* data, std::size_t count, std::size_t element_size, std::ostream& os) {
  if (!ValidElementSize(element_size)) {
    os.setstate(std::ios::failbit);
    return false;
  }
  if (LittleEndianHost()) return WriteBytes(data, count * element_size, os);
  const auto* in = static_cast<const unsigned char*>(data);
  const std::size_t per_chunk = kChunkBytes / element_size;
  std::vector<unsigned char> scratch(std::min(count, per_chunk) * element_size);
  for (std::size_t done = 0; done < count && os;) {
    const std::size_t n = std::min(per_chunk, count - done);
    std::memcpy(scratch.data(), in + done * element_size, n * element_size);
    ToLittleEndian(scratch.data(), n, element_size);
    WriteBytes(scratch.data(), n * element_size, os);
    done += n;
  }
  return static_cast<bool>(os);
}

bool ReadArray(void* data, std::size_t count, std::size_t element_size, std::istream& is) {
  if (!ValidElementSize(element_size)) {
    is.setstate(std::ios::failbit);
    return false;
  }
  if (!ReadBytes(data, count * element_size, is)) return false;
  ToLittleEndian(static_cast<unsigned char*>(data), count, element_size);
  return true;
}

bool WriteBinaryString(const std::string& text, std::ostream& os) {
  if (text.size() > 0x7fffffffu) {
    os.setstate(std::ios::failbit);
    return false;
  }
  return WriteFourBytes(static_cast<std::uint32_t>(text.size()), os) &&
         WriteBytes(text.data(), text.size(), os);
}

bool ReadBinaryString(std::string& text, std::istream& is, std::uint32_t max_length) {
  std::uint32_t length;
  if (!ReadFourBytes(length, is)) return false;
  if (length > max_length) {
    is.setstate(std::ios::failbit);
    return false;
  }
  std::string read;
  char chunk[4096];
  for (std::uint32_t left = length; left > 0;) {
    const std::uint32_t n = std::min<std::uint32_t>(left, sizeof chunk);
    if (!ReadBytes(chunk, n, is)) return false;
    read.append(chunk, n);
    left -= n;
  }
  text.swap(read);
  return true;
}

long long StreamBytesLeft(std::istream& is) {
  if (!is) return -1;
  const std::istream::pos_type here = is.tellg();
  if (here == std::istream::pos_type(-1)) {
    is.clear(is.rdstate() & ~std::ios::failbit);
    return -1;
  }
  is.seekg(0, std::ios::end);
  const std::istream::pos_type end = is.tellg();
  is.seekg(here);
  if (end == std::istream::pos_type(-1) || !is) {
    is.clear();
    is.seekg(here);
    return -1;
  }
  return static_cast<long long>(end - here);
}
