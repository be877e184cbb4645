#include <mvda/containers/data_matrix.h>
#include <mvda/models/pca.h>
#include <mvda/platform/progress.h>
#include <mvda/platform/stream.h>

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/make_vector.h"  // MakeVector<T>({...}): a vector from literals, -99 = missing

namespace {

using Matrix = NCDataMatrix<float>;
constexpr double kM = -99;

// Two deflated components of a small matrix with gaps, the last one stopped by its limit of 3.
NCPCA FittedModel() {
  Matrix x;
  for (const std::vector<double>& row :
       std::vector<std::vector<double>>{{1, 2, kM}, {2, 1, 3}, {kM, 4, 1}, {3, 3, 2}, {0, kM, 5}})
    x.push_back(MakeVector<float>(row));
  NCPCA model(&x, 3);
  NCProgress silent;
  for (int a = 0; a < 2; ++a) {
    model.NextComponent(&silent, nullptr, 0, nullptr);
    model.CalculateResiduals();
  }
  return model;
}

void ExpectSameModel(const NCPCA& read, const NCPCA& written) {
  EXPECT_EQ(*read.GetPprim(), *written.GetPprim());
  EXPECT_EQ(*read.GetTprim(), *written.GetTprim());
  EXPECT_EQ(*read.GetResiduals(), *written.GetResiduals());
  EXPECT_EQ(read.GetResiduals()->GetNumMisVal(), 3);
  EXPECT_EQ(read.GetMaxIterations(), written.GetMaxIterations());
  EXPECT_EQ(read.GetIterations(), written.GetIterations());
  EXPECT_EQ(read.GetComponents(), 0);  // not in the stream: left as it was
}

TEST(PcaStream, RoundTripKeepsMatricesAndCounters) {
  const NCPCA model = FittedModel();
  ASSERT_EQ(model.GetIterations(), 3);
  std::ostringstream os;
  ASSERT_TRUE(StreamOut(model, os));
  NCPCA read;
  std::istringstream is(os.str());
  ASSERT_TRUE(StreamIn(read, is));
  ExpectSameModel(read, model);
}

// Copies share their matrices in memory, yet each one written in the same pass reads back whole.
TEST(PcaStream, SharingCopiesInOnePass) {
  const NCPCA model = FittedModel();
  const NCPCA copy(model);
  std::ostringstream os;
  os << model << copy;
  model.UStreamableReset();
  copy.UStreamableReset();
  NCPCA first, second;
  std::istringstream is(os.str());
  is >> first >> second;
  ASSERT_TRUE(is);
  ExpectSameModel(first, model);
  ExpectSameModel(second, model);
}

// The record is a 4-byte length, "NCPCA" and the 4-byte version at offset 9. Other versions and
// every truncation are refused and leave the reader as it was.
TEST(PcaStream, RefusesOtherVersionsAndTruncations) {
  std::ostringstream os;
  ASSERT_TRUE(StreamOut(FittedModel(), os));
  const std::string bytes = os.str();
  ASSERT_EQ(bytes.substr(4, 5), "NCPCA");
  ASSERT_EQ(bytes[9], 2);
  Matrix one(2, 2, 1.0f);
  const auto refused = [&](const std::string& stream) {
    NCPCA reader(&one, 9);
    std::istringstream is(stream);
    const bool read = StreamIn(reader, is);
    EXPECT_EQ(*reader.GetResiduals(), one);
    EXPECT_EQ(reader.GetPprim()->SizeRows(), 0);
    EXPECT_EQ(reader.GetMaxIterations(), 9);
    return !read;
  };
  for (const char version : {1, 3}) {
    std::string other = bytes;
    other[9] = version;
    EXPECT_TRUE(refused(other)) << int(version);
  }
  for (std::size_t n = 0; n < bytes.size(); ++n) EXPECT_TRUE(refused(bytes.substr(0, n))) << n;
}

}  // namespace
