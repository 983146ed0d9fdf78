#include <kestal_ulx/list.h>

#include "list.hpp"

using kestal::doubly_linked_list;
using kestal::singly_linked_list;

void kestal_doubly_linked_list_prepend_tag(void *head, void *tail, void *node, uint64_t previous, uint64_t next,
                                           const char *, uint64_t)
{
    if (head != nullptr && node != nullptr)
        doubly_linked_list(head, tail, previous, next).prepend(node);
}

void kestal_doubly_linked_list_append_tag(void *head, void *tail, void *node, uint64_t previous, uint64_t next,
                                          const char *, uint64_t)
{
    if (head != nullptr && node != nullptr)
        doubly_linked_list(head, tail, previous, next).append(node);
}

void kestal_doubly_linked_list_delete_tag(void *head, void *tail, void *node, uint64_t previous, uint64_t next,
                                          const char *, uint64_t)
{
    if (head != nullptr && node != nullptr)
        doubly_linked_list(head, tail, previous, next).remove(node);
}

void kestal_doubly_linked_list_replace_tag(void *head, void *tail, void *old_node, void *new_node, uint64_t previous,
                                           uint64_t next, const char *, uint64_t)
{
    if (head != nullptr && old_node != nullptr && new_node != nullptr)
        doubly_linked_list(head, tail, previous, next).replace(old_node, new_node);
}

void kestal_doubly_linked_list_insert_tag(void *head, void *tail, void *existing, void *new_node, uint64_t previous,
                                          uint64_t next, const char *, uint64_t)
{
    if (head != nullptr && existing != nullptr && new_node != nullptr)
        doubly_linked_list(head, tail, previous, next).insert(existing, new_node);
}

void kestal_doubly_linked_list_sort_insert_tag(void *head, void *tail, void *node, uint64_t previous, uint64_t next,
                                               kestal_list_compare_t compare, const char *, uint64_t)
{
    if (head != nullptr && node != nullptr)
        doubly_linked_list(head, tail, previous, next).sort_insert(node, compare);
}

void kestal_doubly_linked_list_sort_tag(void *head, void *tail, uint64_t previous, uint64_t next,
                                        kestal_list_compare_t compare, const char *, uint64_t)
{
    if (head != nullptr && compare != nullptr)
        doubly_linked_list(head, tail, previous, next).sort(compare);
}

void kestal_singly_linked_list_prepend_tag(void *head, void *tail, void *node, uint64_t next, const char *, uint64_t)
{
    if (head != nullptr && node != nullptr)
        singly_linked_list(head, tail, next).prepend(node);
}

void kestal_singly_linked_list_append_tag(void *head, void *tail, void *node, uint64_t next, const char *, uint64_t)
{
    if (head != nullptr && node != nullptr)
        singly_linked_list(head, tail, next).append(node);
}

void kestal_singly_linked_list_delete_tag(void *head, void *tail, void *node, uint64_t next, const char *, uint64_t)
{
    if (head != nullptr && node != nullptr)
        singly_linked_list(head, tail, next).remove(node);
}

void kestal_singly_linked_list_replace_tag(void *head, void *tail, void *old_node, void *new_node, uint64_t next,
                                           const char *, uint64_t)
{
    if (head != nullptr && old_node != nullptr && new_node != nullptr)
        singly_linked_list(head, tail, next).replace(old_node, new_node);
}

void kestal_singly_linked_list_insert_tag(void *head, void *tail, void *existing, void *new_node, uint64_t next,
                                          const char *, uint64_t)
{
    if (head != nullptr && existing != nullptr && new_node != nullptr)
        singly_linked_list(head, tail, next).insert(existing, new_node);
}

void kestal_singly_linked_list_sort_insert_tag(void *head, void *tail, void *node, uint64_t next,
                                               kestal_list_compare_t compare, const char *, uint64_t)
{
    if (head != nullptr && node != nullptr)
        singly_linked_list(head, tail, next).sort_insert(node, compare);
}

void kestal_singly_linked_list_sort_tag(void *head, void *tail, uint64_t next, kestal_list_compare_t compare,
                                        const char *, uint64_t)
{
    if (head != nullptr && compare != nullptr)
        singly_linked_list(head, tail, next).sort(compare);
}

void *kestal_linked_list_get_tail_tag(void *head, void *tail, uint64_t next, const char *, uint64_t)
{
    return head == nullptr ? nullptr : singly_linked_list(head, tail, next).last();
}

int64_t kestal_linked_list_index_tag(void *head, const void *node, uint64_t next, const char *, uint64_t)
{
    if (head == nullptr || node == nullptr)
        return -1;
    const singly_linked_list list(head, nullptr, next);
    int64_t index = 0;
    for (void *element = list.head(); element != nullptr; element = list.next(element), ++index)
        if (element == node)
            return index;
    return -1;
}

uint64_t kestal_linked_list_count_tag(void *head, uint64_t next, const char *, uint64_t)
{
    return head == nullptr ? 0 : singly_linked_list(head, nullptr, next).count();
}

void *kestal_linked_list_search_tag(void *head, const void *key, uint64_t next, kestal_list_match_t match, const char *,
                                    uint64_t)
{
    if (head == nullptr)
        return nullptr;
    const singly_linked_list list(head, nullptr, next);
    for (void *element = list.head(); element != nullptr; element = list.next(element))
        if (element == key || (match != nullptr && match(element, key) == 0))
            return element;
    return nullptr;
}
