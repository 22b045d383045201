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

  // Deletes the elements if this vector owns them, then empties it. The vector is emptied first, so
  // a destructor of an element that looks at the vector finds it empty, never half deleted.
  void DeleteAll() {
    std::vector<T*> doomed;
    doomed.swap(*this);
    if (m_bOwner) {
      for (T* element : doomed) delete element;
    }
  }

  bool m_bOwner;
};

#endif
