// Environment variables set for one test and put back at the end of the
// scope (unset again when they were unset).
#ifndef QUARNEL_TESTS_SUPPORT_ENV_VARS_H_
#define QUARNEL_TESTS_SUPPORT_ENV_VARS_H_

#include <cstdlib>
#include <map>
#include <optional>
#include <string>

#include "tests/support/platform_cases.h"  // setenv and unsetenv on Windows

class ScopedEnvVars {
 public:
  // Sets `name` to `value`, or unsets it when `value` is null.
  void Set(const char* name, const char* value) {
    if (!saved_.count(name)) {
      const char* old = std::getenv(name);
      saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
    }
    if (value)
      setenv(name, value, 1);
    else
      unsetenv(name);
  }
  ~ScopedEnvVars() {
    for (const auto& [name, value] : saved_) {
      if (value)
        setenv(name.c_str(), value->c_str(), 1);
      else
        unsetenv(name.c_str());
    }
  }

 private:
  std::map<std::string, std::optional<std::string>> saved_;
};

#endif  // QUARNEL_TESTS_SUPPORT_ENV_VARS_H_
