// A doubly linked list threaded through the records it holds: a head of two pointers that points
// to itself when empty. Used for the process's threads and streams. System code.
#pragma once

#include <cstddef>

namespace orlix {

struct ListHead {
    ListHead* next;
    ListHead* prev;
};

inline void list_init(ListHead* head) { head->next = head->prev = head; }

inline bool list_empty(const ListHead* head) { return head->next == head; }

inline void list_append(ListHead* head, ListHead* link)
{
    link->prev = head->prev;
    link->next = head;
    head->prev->next = link;
    head->prev = link;
}

// Takes a link out; a link that is in no list (both pointers null or pointing to itself) stays.
inline void list_remove(ListHead* link)
{
    if (link->next == nullptr || link->next == link)
        return;
    link->prev->next = link->next;
    link->next->prev = link->prev;
    link->next = link->prev = link;
}

// The record that holds a link, from the link's offset in it (offsetof).
template <typename Record> Record* list_record(ListHead* link, std::size_t offset)
{
    return reinterpret_cast<Record*>(reinterpret_cast<char*>(link) - offset);
}

} // namespace orlix
