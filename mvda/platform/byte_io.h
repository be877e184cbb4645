// Little-endian byte I/O on std streams: the primitives every stream record is built from.
#ifndef MVDA_PLATFORM_BYTE_IO_H_
#define MVDA_PLATFORM_BYTE_IO_H_

#include <mvda/mvda_export.h>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>

// Every multi-byte value goes to the stream least significant byte first, whatever the host's
// byte order, so a project file written on one machine reads on any other. Failures are reported
// through the stream state (a short read sets failbit); each function also returns whether the
// stream is still good, and a failed read leaves the output argument unchanged.

MVDA_EXPORT bool WriteBytes(const void* data, std::size_t count, std::ostream& os);
MVDA_EXPORT bool ReadBytes(void* data, std::size_t count, std::istream& is);

MVDA_EXPORT bool WriteTwoBytes(std::uint16_t value, std::ostream& os);
MVDA_EXPORT bool ReadTwoBytes(std::uint16_t& value, std::istream& is);

MVDA_EXPORT bool WriteFourBytes(std::uint32_t value, std::ostream& os);
MVDA_EXPORT bool WriteFourBytes(std::int32_t value, std::ostream& os);
MVDA_EXPORT bool ReadFourBytes(std::uint32_t& value, std::istream& is);
MVDA_EXPORT bool ReadFourBytes(std::int32_t& value, std::istream& is);

// `count` elements of `element_size` bytes each (1, 2, 4 or 8), every element little-endian.
// Anything else is refused: the stream is marked failed and nothing is written or read.
MVDA_EXPORT bool WriteArray(const void* data, std::size_t count, std::size_t element_size,
                            std::ostream& os);
MVDA_EXPORT bool ReadArray(void* data, std::size_t count, std::size_t element_size,
                           std::istream& is);

// A string as a four-byte length and its bytes (no terminator). Reading refuses lengths above
// `max_length` and grows the string only as bytes actually arrive, so a corrupt length cannot
// make it allocate more than the stream holds.
MVDA_EXPORT bool WriteBinaryString(const std::string& text, std::ostream& os);
MVDA_EXPORT bool ReadBinaryString(std::string& text, std::istream& is,
                                  std::uint32_t max_length = 0x7fffffffu);

// Bytes between the read position and the end of a seekable stream; -1 when the stream cannot
// tell. Readers compare a count from the stream with this before they allocate.
MVDA_EXPORT long long StreamBytesLeft(std::istream& is);

#endif  // MVDA_PLATFORM_BYTE_IO_H_
