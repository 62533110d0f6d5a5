// Minimal HIDL string and vector types, as argument types of framework services.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

class hidl_string {
 public:
  hidl_string() = default;
  hidl_string(const char* s) : mValue(s != nullptr ? s : "") {}
  hidl_string(const std::string& s) : mValue(s) {}
  const char* c_str() const { return mValue.c_str(); }
  size_t size() const { return mValue.size(); }
  bool empty() const { return mValue.empty(); }
  operator std::string() const { return mValue; }
  bool operator==(const hidl_string& o) const { return mValue == o.mValue; }

 private:
  std::string mValue;
};

template <typename T>
class hidl_vec {
 public:
  hidl_vec() = default;
  hidl_vec(size_t n) : mItems(n) {}
  hidl_vec(std::initializer_list<T> items) : mItems(items) {}
  hidl_vec(const std::vector<T>& items) : mItems(items) {}
  size_t size() const { return mItems.size(); }
  void resize(size_t n) { mItems.resize(n); }
  T& operator[](size_t i) { return mItems[i]; }
  const T& operator[](size_t i) const { return mItems[i]; }
  T* data() { return mItems.data(); }
  typename std::vector<T>::iterator begin() { return mItems.begin(); }
  typename std::vector<T>::iterator end() { return mItems.end(); }
  typename std::vector<T>::const_iterator begin() const { return mItems.begin(); }
  typename std::vector<T>::const_iterator end() const { return mItems.end(); }
  operator std::vector<T>() const { return mItems; }

 private:
  std::vector<T> mItems;
};
