// libFuzzer target for the tool's CSV reader. The first byte picks the separator and decimal
// mark (or detection); the rest is the file. Either it is refused with ToolError, or it gives a
// table whose values fill rows x columns, are finite, whose column names are distinct, and whose
// names and text cells hold no control characters.
#include <cmath>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "csv_table.h"
#include "fuzz_input.h"
#include "tool_error.h"

namespace {

bool Printable(const std::string& text) {
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7f) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  mvda::cli::CsvDialect dialect;
  dialect.separator = "\0,;\t"[data[0] & 3];
  dialect.decimal = "\0.,\0"[(data[0] >> 2) & 3];
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  const bool text_column = (data[0] >> 4) & 1;
  try {
    const mvda::cli::CsvTable t =
        mvda::cli::ParseCsv("fuzz.csv", bytes, text_column ? std::vector<std::string>{"c"}
                                                           : std::vector<std::string>{},
                            dialect);
    fuzz::Require(t.Rows() > 0 && t.Columns() > 0, "an empty table accepted");
    fuzz::Require(t.values.size() == static_cast<std::size_t>(t.Rows()) * t.columns.size(),
                  "the values do not fill rows x columns");
    for (const float v : t.values) fuzz::Require(std::isfinite(v), "a value is not finite");
    fuzz::Require(std::set<std::string>(t.columns.begin(), t.columns.end()).size() ==
                      t.columns.size(),
                  "two columns share a name");
    for (const std::string& name : t.columns) fuzz::Require(Printable(name), "a raw control code");
    for (const std::string& name : t.row_names) fuzz::Require(Printable(name), "a raw control code");
    for (std::size_t c = 0; c < t.text.size(); ++c) {
      if (!t.is_text[c]) continue;
      fuzz::Require(t.text[c].size() == static_cast<std::size_t>(t.Rows()), "a short text column");
      for (const std::string& cell : t.text[c]) fuzz::Require(Printable(cell), "a raw control code");
    }
  } catch (const mvda::cli::ToolError&) {
  }
  return 0;
}
