// Circular doubly linked lists with the link inside the element. A link on no list points at itself.
#pragma once

#include <cstddef>

#include "sw_ebridge.h"

namespace sw
{

inline void list_init(sw_list_head *link)
{
    link->next = link;
    link->prev = link;
}

inline void list_add(sw_list_head *link, sw_list_head *after)
{
    if (after->next == nullptr)
        list_init(after);
    link->next = after->next;
    link->prev = after;
    after->next->prev = link;
    after->next = link;
}

inline void list_add_head(sw_list_head *head, sw_list_head *link) { list_add(link, head); }
inline void list_add_tail(sw_list_head *head, sw_list_head *link) { list_add(link, head->prev); }

// Records that came in through the exported caches may carry null links: they are on no list.
inline void list_unlink(sw_list_head *link)
{
    if (link->next == nullptr || link->prev == nullptr)
        list_init(link);
    link->prev->next = link->next;
    link->next->prev = link->prev;
    list_init(link);
}

// Takes every element off the list, so that unlinking one later touches nothing but itself.
inline void list_scatter(sw_list_head *head)
{
    while (head->next != nullptr && head->next != head)
        list_unlink(head->next);
}

// Calls `visit` for each element, whose link is its member `link`. The element may be taken off the list meanwhile.
template <class Element, class Visitor>
void for_each_linked(sw_list_head &head, const Visitor &visit)
{
    if (head.next == nullptr)
        return;
    for (sw_list_head *link = head.next, *next = link->next; link != &head; link = next, next = link->next)
        visit(*static_cast<Element *>(static_cast<void *>(reinterpret_cast<char *>(link) - offsetof(Element, link))));
}

}  // namespace sw
