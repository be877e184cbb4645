// Test helpers for the stream layer: an object's whole stream as bytes, and a read from bytes.
#ifndef MVDA_TESTS_SUPPORT_STREAM_BYTES_H_
#define MVDA_TESTS_SUPPORT_STREAM_BYTES_H_

#include <mvda/platform/stream.h>

#include <sstream>
#include <string>

#include <gtest/gtest.h>

inline std::string Bytes(const UStreamBase& object) {
  std::ostringstream os;
  EXPECT_TRUE(StreamOut(object, os));
  return os.str();
}

inline bool ReadInto(const std::string& bytes, UStreamBase& object) {
  std::istringstream is(bytes);
  return StreamIn(object, is);
}

#endif  // MVDA_TESTS_SUPPORT_STREAM_BYTES_H_
