// TLoadedLib: a module entered with DLLoadLib for the life of an object.
//
// The constructor calls DLLoadLib with the name (and the ranges, when given);
// the destructor calls DLUnloadLib, but only when that load succeeded: a
// module this object did not enter (-631, entered already; any failure) is
// left to whoever entered it. Moving hands the duty to unload to the target;
// copying is not possible. One thread at a time.
//
//   TLoadedLib vellores(TString(u"vellores.dll"));
//   if (!vellores.IsLoaded()) return vellores.Error();
#ifndef QUARNEL_RESOURCES_LOADEDLIB_H_
#define QUARNEL_RESOURCES_LOADEDLIB_H_

#include <utility>

#include "quarnel/resources/resmgr.h"
#include "quarnel/text/tstring.h"

class TLoadedLib {
 public:
  explicit TLoadedLib(const TString& name) : name_(name), error_(DLLoadLib(&name_)) {}
  TLoadedLib(const TString& name, int firstRes, int lastRes, int firstErr, int lastErr)
      : name_(name), error_(DLLoadLib(&name_, firstRes, lastRes, firstErr, lastErr)) {}
  ~TLoadedLib() { Unload(); }

  TLoadedLib(const TLoadedLib&) = delete;
  TLoadedLib& operator=(const TLoadedLib&) = delete;
  TLoadedLib(TLoadedLib&& other) noexcept
      : name_(std::move(other.name_)),
        error_(other.error_),
        loaded_(std::exchange(other.loaded_, false)) {}
  TLoadedLib& operator=(TLoadedLib&& other) noexcept {
    if (this != &other) {
      Unload();
      name_ = std::move(other.name_);
      error_ = other.error_;
      loaded_ = std::exchange(other.loaded_, false);
    }
    return *this;
  }

  // DLLoadLib's result.
  int Error() const { return error_; }
  // Whether this object entered the module and has not unloaded it yet.
  bool IsLoaded() const { return loaded_; }
  const TString& Name() const { return name_; }
  // Unloads now, when this object holds the module; afterwards nothing.
  void Unload() {
    if (loaded_) DLUnloadLib(&name_);
    loaded_ = false;
  }

 private:
  TString name_;
  int error_;
  bool loaded_ = error_ == 0;
};

#endif  // QUARNEL_RESOURCES_LOADEDLIB_H_
