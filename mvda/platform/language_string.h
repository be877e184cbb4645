// LanguageString: the texts behind the numeric message ids of the library.
#ifndef MVDA_PLATFORM_LANGUAGE_STRING_H_
#define MVDA_PLATFORM_LANGUAGE_STRING_H_

#include <mvda/mvda_export.h>

#include <string>

// Messages and progress texts that a host shows in its own language are named by id. The library
// carries a clear English text for every id it uses; a host replaces any of them with Set (for
// instance from its translation table at start-up). Thread-safe.
class MVDA_EXPORT LanguageString {
 public:
  // The text of `id`; for an id nobody has defined, "[text id N]" so that a message never
  // comes out empty.
  static std::string Get(int id);

  // The text of `id` with its printf placeholder (one integer) filled with `value`.
  static std::string Format(int id, long long value);

  // Replaces the text of `id`. Placeholders must match the built-in text's (one %d where the
  // built-in has one), since the library formats the text with the same argument.
  static void Set(int id, const std::string& text);

  // Drops every replacement: the built-in English texts apply again.
  static void ResetToBuiltIn();
};

#endif  // MVDA_PLATFORM_LANGUAGE_STRING_H_
