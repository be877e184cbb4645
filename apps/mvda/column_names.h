// Finding a column by the name a user typed (--class, --y, --exclude, --column, ...): exactly
// first, then ignoring letter case; and the one-line message for a name that matches nothing.
#ifndef MVDA_APPS_MVDA_COLUMN_NAMES_H_
#define MVDA_APPS_MVDA_COLUMN_NAMES_H_

#include <string>
#include <vector>

namespace mvda::cli {

// 0-based index of `name` in `columns`: the column spelled exactly so, else the one column that
// equals it when ASCII letter case is ignored. -1 when none matches, or when several match only
// in that looser way (a guess between "Class" and "CLASS" would be a silent wrong answer).
int MatchColumn(const std::vector<std::string>& columns, const std::string& name);

// Up to `count` column names closest to `name` by edit distance, ignoring letter case, nearest
// first (ties in file order). Only names within a third of the typed length (at least 2 edits)
// count, or names that contain it or are contained in it; when none does, the single nearest.
std::vector<std::string> ClosestColumns(const std::vector<std::string>& columns,
                                        const std::string& name, std::size_t count = 3);

// "path: no column 'name' (option); did you mean 'A' or 'B'? The 14 columns are: ..." with the
// whole list, never cut; control characters in names are shown as '?'.
std::string NoSuchColumn(const std::string& path, const std::vector<std::string>& columns,
                         const std::string& name, const std::string& option);

}  // namespace mvda::cli

#endif  // MVDA_APPS_MVDA_COLUMN_NAMES_H_
