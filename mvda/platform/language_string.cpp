#include <mvda/platform/language_string.h>

#include <map>
#include <mutex>
#include <string>

namespace {

// The built-in English texts. Ids with %d are formatted with one integer (a component or a group
// number).
const std::map<int, std::string>& BuiltIn() {
  static const std::map<int, std::string> texts = {
      {10041, "Computing principal component %d"},
      {10047, "Computing PLS component %d"},
      {10066, "None"},
      {10067, "Centre"},
      {10068, "Pareto"},
      {10069, "Unit variance"},
      {10070, "The number of variables does not match the scaling model"},
      {10071, "Too few values to scale the variable: at least 2 are needed"},
      {10072, "The variable has no variation and cannot be scaled"},
      {10073, "The variable's variation is too small to scale"},
      {10074, "The variable's variation is too large to scale"},
      {10147, "The computation of the principal component was stopped by the user"},
      {10157, "Cross-validating group %d"},
      {10158, "Computing scores without the variable group"},
      {10159, "PLS component %d is degenerate: X has no variation left in the Y direction"},
      {10160, "The computation of the PLS component was stopped by the user"},
      {10161, "The computation was interrupted by the user"},
      {10162, "The Y residuals can only be shuffled before the first component is extracted"},
      {10163, "Cross-validating PLS group %d"},
      {10374, "The residual sum of squares of the PCA model is not a finite number"},
  };
  return texts;
}

std::mutex& Lock() {
  static std::mutex lock;
  return lock;
}

std::map<int, std::string>& Replacements() {
  static std::map<int, std::string> replaced;
  return replaced;
}

}  // namespace

std::string LanguageString::Get(int id) {
  {
    std::lock_guard<std::mutex> guard(Lock());
    const auto& replaced = Replacements();
    if (auto it = replaced.find(id); it != replaced.end()) return it->second;
  }
  const auto& texts = BuiltIn();
  if (auto it = texts.find(id); it != texts.end()) return it->second;
  return "[text id " + std::to_string(id) + "]";
}

std::string LanguageString::Format(int id, long long value) {
  const std::string format = Get(id);
  // Only "%d" (once) and "%%" are understood; a text with any other conversion is shown as it
  // stands rather than handed to printf with an argument it does not expect.
  std::string out;
  bool filled = false;
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%') {
      out += format[i];
    } else if (i + 1 < format.size() && format[i + 1] == '%') {
      out += '%';
      ++i;
    } else if (i + 1 < format.size() && format[i + 1] == 'd' && !filled) {
      out += std::to_string(value);
      filled = true;
      ++i;
    } else {
      return format;
    }
  }
  return out;
}

void LanguageString::Set(int id, const std::string& text) {
  std::lock_guard<std::mutex> guard(Lock());
  Replacements()[id] = text;
}

void LanguageString::ResetToBuiltIn() {
  std::lock_guard<std::mutex> guard(Lock());
  Replacements().clear();
}
