// A tiny reader for the embedded datasets under data/: comma-separated, one header line, no
// quoting.
#ifndef MVDA_TESTS_SUPPORT_CSV_H_
#define MVDA_TESTS_SUPPORT_CSV_H_

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

struct CsvTable {
  std::vector<std::string> header;
  std::vector<std::vector<std::string>> rows;  // every row as long as the header

  int Column(const std::string& name) const {
    for (std::size_t j = 0; j < header.size(); ++j)
      if (header[j] == name) return static_cast<int>(j);
    throw std::runtime_error("CsvTable: no column " + name);
  }
  double Number(std::size_t row, int column) const {
    const std::string& cell = rows.at(row).at(static_cast<std::size_t>(column));
    std::size_t used = 0;
    const double value = std::stod(cell, &used);
    if (used != cell.size()) throw std::runtime_error("CsvTable: not a number: " + cell);
    return value;
  }
};

// The data folder: $MVDA_DATA_DIR (ctest sets it), else data/ beside the tests folder of this
// source tree.
inline std::string DataDir() {
  if (const char* dir = std::getenv("MVDA_DATA_DIR")) return dir;
  const std::string here = __FILE__;  // .../tests/support/csv.h
  return here.substr(0, here.rfind("/tests/")) + "/data";
}

inline std::vector<std::string> SplitCsvLine(const std::string& line) {
  std::vector<std::string> cells;
  std::stringstream in(line);
  std::string cell;
  while (std::getline(in, cell, ',')) cells.push_back(cell);
  if (!line.empty() && line.back() == ',') cells.emplace_back();
  return cells;
}

// Reads data/<name>; throws std::runtime_error when the file is missing or a row has the wrong
// number of cells.
inline CsvTable ReadCsv(const std::string& name) {
  const std::string path = DataDir() + "/" + name;
  std::ifstream file(path);
  if (!file) throw std::runtime_error("ReadCsv: cannot open " + path);
  CsvTable table;
  std::string line;
  while (std::getline(file, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) continue;
    std::vector<std::string> cells = SplitCsvLine(line);
    if (table.header.empty()) {
      table.header = std::move(cells);
    } else if (cells.size() != table.header.size()) {
      throw std::runtime_error("ReadCsv: " + path + ": a row of " + std::to_string(cells.size()) +
                               " cells under a header of " + std::to_string(table.header.size()));
    } else {
      table.rows.push_back(std::move(cells));
    }
  }
  return table;
}

#endif  // MVDA_TESTS_SUPPORT_CSV_H_
