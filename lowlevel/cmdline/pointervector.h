// A vector of pointers that owns what they point to.
#ifndef LOWLEVEL_CMDLINE_POINTERVECTOR_H
#define LOWLEVEL_CMDLINE_POINTERVECTOR_H

#include <vector>

// A std::vector<T*> that, while m_bOwner is set (it is from construction), deletes every non-null
// element when it is destroyed or when DeleteAll is called. It cannot be copied: two owners of the
// same elements would delete them twice.
template <class T>
class PointerVector : public std::vector<T*> {
 public:
  PointerVector() : m_bOwner(true) {}
  PointerVector(const PointerVector&) = delete;
  PointerVector& operator=(const PointerVector&) = delete;

  virtual ~PointerVector() { DeleteAll(); }

  // Deletes the elements if this vector owns them, then empties it (the capacity stays).
  void DeleteAll() {
    if (m_bOwner) {
      for (T*& element : *this) {
        delete element;
        element = nullptr;
      }
    }
    this->clear();
  }

  bool m_bOwner;
};

#endif
