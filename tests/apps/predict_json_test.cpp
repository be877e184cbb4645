// predict --json: an observation is either scored, and then every value shown for it (scores,
// predictions, T², SPE) is a finite number, or not scored, and then every value is null. Rows
// with gaps, a row with nothing, values far outside the training data.
#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "run_tool.h"
#include "tool_json.h"

namespace {

// Checks the rule for observation i over the per-observation lists of a predict result.
void ExpectScoredMeansNumbers(const Json& p, std::size_t i) {
  const bool scored = p["scored"][i].get<bool>();
  std::vector<Json> values;
  for (const Json& component : p["scores"]) values.push_back(component[i]);
  values.push_back(p["t2"][i]);
  values.push_back(p["spe"][i]);
  if (p.contains("predicted"))
    for (const auto& column : p["predicted"].items()) values.push_back(column.value()[i]);
  for (const Json& v : values) {
    if (scored) {
      ASSERT_TRUE(v.is_number()) << "observation " << i << ": " << v;
      EXPECT_TRUE(std::isfinite(v.get<double>()));
    } else {
      EXPECT_TRUE(v.is_null()) << "observation " << i << ": " << v;
    }
  }
}

TEST(PredictJson, ScoredObservationsShowNumbersAndOthersNull) {
  ScratchDir dir("predict_json");
  RunJson({"pls", Data("diabetes.csv"), "--y", "Progression", "--save", dir / "pls.mvda",
           "--json"});
  RunJson({"pca", Data("diabetes.csv"), "--exclude", "Progression", "--save", dir / "pca.mvda",
           "--json"});
  // Ten variables: P2 misses 4 of them (0.4), P3 all, P4 and P5 lie some 1e16 standard
  // deviations out, P6 holds a value near zero.
  const std::string header = "Patient,Age,Sex,BMI,BP,TC,LDL,HDL,TCH,LTG,GLU\n";
  WriteText(dir / "new.csv", header +
                                 "P1,59,2,32.1,101.0,157,93.2,38.0,4.0,4.8598,87\n"
                                 "P2,,2,,101.0,,93.2,38.0,,4.8598,87\n"
                                 "P3,,,,,,,,,,\n"
                                 "P4,1e18,2,32.1,101.0,157,93.2,38.0,4.0,4.8598,87\n"
                                 "P5,-1e17,2,32.1,1e17,157,93.2,38.0,4.0,4.8598,87\n"
                                 "P6,59,2,32.1,101.0,157,93.2,38.0,4.0,4.8598,1e-30\n");
  const double missing_share[] = {0.0, 0.4, 1.0, 0.0, 0.0, 0.0};
  for (const char* model : {"pls.mvda", "pca.mvda"}) {
    for (const char* max_missing : {"0.5", "0.3"}) {
      SCOPED_TRACE(std::string(model) + " --max-missing " + max_missing);
      const Json p = RunJson(
          {"predict", dir / model, dir / "new.csv", "--max-missing", max_missing, "--json"});
      ASSERT_EQ(p["scored"].size(), 6u);
      for (std::size_t i = 0; i < 6; ++i) {
        // Scored exactly when the share of gaps is within the limit.
        EXPECT_EQ(p["scored"][i].get<bool>(), missing_share[i] <= std::stod(max_missing)) << i;
        ExpectScoredMeansNumbers(p, i);
      }
    }
  }
  // Sex varies by about 0.5 in training: 1.8e19, about the largest a column may hold, lies 4e19
  // standard deviations out; scores, T², SPE and prediction stay numbers.
  WriteText(dir / "beyond.csv", header +
                                    "P1,59,2,32.1,101.0,157,93.2,38.0,4.0,4.8598,87\n"
                                    "P9,59,1.8e19,32.1,101.0,157,93.2,38.0,4.0,4.8598,87\n");
  for (const char* model : {"pls.mvda", "pca.mvda"}) {
    SCOPED_TRACE(model);
    const Json p = RunJson({"predict", dir / model, dir / "beyond.csv", "--json"});
    for (std::size_t i = 0; i < 2; ++i) {
      EXPECT_TRUE(p["scored"][i].get<bool>());
      ExpectScoredMeansNumbers(p, i);
    }
  }
}

}  // namespace
