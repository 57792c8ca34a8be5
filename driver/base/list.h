// SPDX-License-Identifier: GPL-2.0-only
// Intrusive doubly linked list. The links live inside the element, which the list does not own.
// A list needs no construction beyond zero-filled memory.
#pragma once

#include "base/types.h"

namespace snbf {

// An element derives from ListLink<Tag> for each list that it can be in; Tag tells them apart.
template <typename Tag>
struct ListLink {
  ListLink* next = nullptr;
  ListLink* prev = nullptr;
};

template <typename T, typename Tag>
class List {
 public:
  using Link = ListLink<Tag>;

  constexpr List() = default;
  List(const List&) = delete;
  List& operator=(const List&) = delete;

  bool empty() const { return head_ == nullptr; }
  T* first() const { return element(head_); }
  T* last() const { return element(tail_); }
  // Null at either end.
  static T* next(const T* item) { return element(item->Link::next); }
  static T* prev(const T* item) { return element(item->Link::prev); }

  void push_back(T* item) { insert(item, tail_, nullptr); }
  void push_front(T* item) { insert(item, nullptr, head_); }
  // `place` is in this list.
  void insert_after(T* place, T* item) { insert(item, place, place->Link::next); }
  // `item` is in this list.
  void remove(T* item) {
    Link* link = item;
    (link->prev != nullptr ? link->prev->next : head_) = link->next;
    (link->next != nullptr ? link->next->prev : tail_) = link->prev;
    link->next = link->prev = nullptr;
  }
  T* pop_front() {
    T* item = first();
    if (item != nullptr) remove(item);
    return item;
  }

 private:
  static T* element(Link* link) { return static_cast<T*>(link); }

  void insert(T* item, Link* before, Link* after) {
    Link* link = item;
    link->prev = before;
    link->next = after;
    (before != nullptr ? before->next : head_) = link;
    (after != nullptr ? after->prev : tail_) = link;
  }

  Link* head_ = nullptr;
  Link* tail_ = nullptr;
};

}  // namespace snbf
