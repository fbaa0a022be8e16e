#include "quarnel/resources/resmgr.h"

#include <mutex>
#include <vector>

namespace {

struct HostList {
  int id;
  const void* data;
  int size;
};

std::mutex g_lock;
std::vector<HostList>& HostLists() {
  static std::vector<HostList> lists;
  return lists;
}

}  // namespace

const void* RMGetKList(int listId, int* size) {
  std::lock_guard<std::mutex> hold(g_lock);
  for (const HostList& l : HostLists()) {
    if (l.id == listId) {
      if (size) *size = l.size;
      return l.data;
    }
  }
  if (size) *size = 0;
  return nullptr;
}

int RMGetErrID(int err, unsigned short* listId, unsigned* key) {
  // No module has entered an error range yet.
  (void)err;
  if (listId) *listId = 0;
  if (key) *key = 0;
  return 0;
}

int RMAddHostKList(int listId, const void* data, int size) {
  std::lock_guard<std::mutex> hold(g_lock);
  auto& lists = HostLists();
  for (auto it = lists.begin(); it != lists.end(); ++it) {
    if (it->id == listId) {
      lists.erase(it);
      break;
    }
  }
  if (data != nullptr) lists.insert(lists.begin(), HostList{listId, data, size});
  return 1;
}
