// Data files that hold several tables, each row led by its kind.
#ifndef QUARNEL_TESTS_SUPPORT_TSV_KIND_H_
#define QUARNEL_TESTS_SUPPORT_TSV_KIND_H_

#include <string>
#include <vector>

#include "tests/support/helpers.h"

// The rows of tests/data/`name` whose first field is `kind`, without it.
inline std::vector<std::vector<std::string>> ReadTsvKind(const std::string& name,
                                                         const std::string& kind) {
  std::vector<std::vector<std::string>> rows;
  for (auto& r : ReadTsv(name)) {
    if (r[0] == kind) rows.emplace_back(r.begin() + 1, r.end());
  }
  return rows;
}

#endif  // QUARNEL_TESTS_SUPPORT_TSV_KIND_H_
