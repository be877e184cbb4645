#include "column_names.h"

#include <algorithm>
#include <cctype>

namespace mvda::cli {
namespace {

// ASCII only: non-ASCII names (UTF-8 bytes) still match exactly, and folding them would need a
// Unicode table the tool does not carry.
std::string Lower(const std::string& s) {
  std::string out = s;
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

std::string Shown(const std::string& name) {
  std::string out;
  for (const char c : name) out += std::iscntrl(static_cast<unsigned char>(c)) ? '?' : c;
  return "'" + out + "'";
}

}  // namespace

int MatchColumn(const std::vector<std::string>& columns, const std::string& name) {
  const auto exact = std::find(columns.begin(), columns.end(), name);
  if (exact != columns.end()) return static_cast<int>(exact - columns.begin());
  const std::string lower = Lower(name);
  int found = -1;
  for (std::size_t j = 0; j < columns.size(); ++j) {
    if (Lower(columns[j]) != lower) continue;
    if (found >= 0) return -1;
    found = static_cast<int>(j);
  }
  return found;
}

std::vector<std::string> ClosestColumns(const std::vector<std::string>& columns,
                                        const std::string& name, std::size_t count) {
  const std::string lower = Lower(name);
  const std::size_t tolerance = std::max<std::size_t>(2, lower.size() / 3);
  struct Candidate {
    std::size_t distance, index;
  };
  std::vector<Candidate> near, all;
  for (std::size_t j = 0; j < columns.size(); ++j) {
    const std::string column = Lower(columns[j]);
    const std::size_t d = EditDistance(lower, column);
    all.push_back({d, j});
    const bool contains = !lower.empty() && (column.find(lower) != std::string::npos ||
                                             lower.find(column) != std::string::npos);
    if (d <= tolerance || contains) near.push_back({d, j});
  }
  auto by_distance = [](const Candidate& a, const Candidate& b) {
    return a.distance != b.distance ? a.distance < b.distance : a.index < b.index;
  };
  std::vector<Candidate>& pool = near.empty() ? all : near;
  std::stable_sort(pool.begin(), pool.end(), by_distance);
  if (near.empty()) count = 1;
  std::vector<std::string> out;
  for (std::size_t i = 0; i < pool.size() && out.size() < count; ++i) {
    out.push_back(columns[pool[i].index]);
  }
  return out;
}

std::string NoSuchColumn(const std::string& path, const std::vector<std::string>& columns,
                         const std::string& name, const std::string& option) {
  std::string text = path + ": no column " + Shown(name) + " (" + option + ")";
  const std::vector<std::string> closest = ClosestColumns(columns, name);
  if (!closest.empty()) {
    text += "; did you mean ";
    for (std::size_t i = 0; i < closest.size(); ++i) {
      text += (i == 0 ? "" : i + 1 == closest.size() ? " or " : ", ") + Shown(closest[i]);
    }
    text += "?";
  }
  text += " The " + std::to_string(columns.size()) +
          (columns.size() == 1 ? " column is: " : " columns are: ");
  for (std::size_t j = 0; j < columns.size(); ++j) text += (j ? ", " : "") + Shown(columns[j]);
  return text;
}

}  // namespace mvda::cli
