// A static object that no destructor ends: a host may end its process while one of its threads is
// still at work in here. For objects that hold nothing of the system.
#pragma once

namespace tavo {

template <typename T>
union Undying {
  Undying() : object() {}
  ~Undying() {}

  T object;
};

}  // namespace tavo
