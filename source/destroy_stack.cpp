#include <kestal_ulx/destroy_stack.h>

#include <kestal_ulx/memory.h>

kestal_destroy_stack_t *kestal_add_destroy_stack(kestal_destroy_stack_t *top, kestal_destructor_t destructor,
                                                 void *argument)
{
    auto *node = static_cast<kestal_destroy_stack_t *>(kestal_alloc(sizeof(kestal_destroy_stack_t)));
    if (node == nullptr)
        return top;
    *node = {top, destructor, argument};
    return node;
}

int32_t kestal_call_destroy_stack(kestal_destroy_stack_t *top)
{
    for (kestal_destroy_stack_t *node = top; node != nullptr; node = node->m_next)
        node->m_argument =
            node->m_destructor != nullptr ? node->m_destructor(node->m_argument) : kestal_check_free(node->m_argument);
    return 0;
}

int32_t kestal_free_destroy_stack(kestal_destroy_stack_t *top)
{
    while (top != nullptr) {
        kestal_destroy_stack_t *next = top->m_next;
        kestal_free(top);
        top = next;
    }
    return 0;
}
