// A static object that is never destroyed: a host may end its process while one of its threads still
// uses the object. For objects that hold no system resources.
#pragma once

namespace tavo {

template <typename T>
union Undying {
  Undying() : object() {}
  ~Undying() {}

  T object;
};

}  // namespace tavo
