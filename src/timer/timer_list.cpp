// The timer service's singly linked list of pointers.
#include "timer/timer_list.h"

#include <cstdlib>

#include "base/platform.h"

#define TIMER_SRC "timer_list"

void* timer_malloc(size_t size) {
    void* p = calloc(1, size);
    if (!p && wlog_levelAllow(WLOG_ERR))
        wlog_log_f(WLOG_ERR, TIMER_SRC, __LINE__, __func__, "fail to calloc memory, size = %zu",
                   size);
    return p;
}

void timer_free(void* p) {
    if (!p) {
        if (wlog_levelAllow(WLOG_DEBUG))
            wlog_log_f(WLOG_DEBUG, TIMER_SRC, __LINE__, __func__, "Free NULL pointer. %s %d\n",
                       __FILE__, __LINE__);
        return;
    }
    free(p);
}

void timer_list_init(timer_list* l) {
    if (!l)
        return;
    l->count = 0;
    l->head = nullptr;
}

bool timer_list_is_empty(const timer_list* l) {
    return !l || l->count == 0;
}

int timer_list_insert(timer_list* l, int index, void* value) {
    if (!l)
        return -1;
    auto* link = static_cast<timer_list_link*>(timer_malloc(sizeof(timer_list_link)));
    if (!link)
        return -1;
    link->value = value;
    if (index < 0 || index >= l->count)
        index = l->count;
    timer_list_link** pp = &l->head;
    for (int i = 0; i < index && *pp; ++i)
        pp = &(*pp)->next;
    link->next = *pp;
    *pp = link;
    return ++l->count;
}

void* timer_list_get(const timer_list* l, int index) {
    if (!l || index < 0 || index >= l->count)
        return nullptr;
    timer_list_link* cur = l->head;
    for (int i = 0; i < index && cur; ++i)
        cur = cur->next;
    return cur ? cur->value : nullptr;
}

void* timer_list_remove(timer_list* l, int index) {
    if (!l || index < 0 || index >= l->count)
        return nullptr;
    timer_list_link** pp = &l->head;
    for (int i = 0; i < index && *pp; ++i)
        pp = &(*pp)->next;
    timer_list_link* link = *pp;
    if (!link)
        return nullptr;
    *pp = link->next;
    void* value = link->value;
    timer_free(link);
    --l->count;
    return value;
}

void timer_list_pop_all(timer_list* l, void (*fn)(void* value)) {
    if (!l)
        return;
    while (l->head) {
        timer_list_link* link = l->head;
        l->head = link->next;
        if (fn)
            fn(link->value);
        timer_free(link);
    }
    l->count = 0;
}

void timer_list_destroy(timer_list* l) {
    timer_list_pop_all(l, nullptr);
}

void* timer_list_iter_begin(timer_list* l, timer_list_iter* it) {
    if (!it)
        return nullptr;
    it->list = l;
    it->prevNext = l ? &l->head : nullptr;
    it->cur = l ? l->head : nullptr;
    it->index = 0;
    return (it->cur && l->count > 0) ? it->cur->value : nullptr;
}

void* timer_list_iter_next(timer_list_iter* it) {
    if (!it || !it->cur)
        return nullptr;
    it->prevNext = &it->cur->next;
    it->cur = it->cur->next;
    ++it->index;
    if (!it->cur || it->index >= it->list->count)
        return nullptr;
    return it->cur->value;
}

void* timer_list_iter_remove(timer_list_iter* it) {
    if (!it || !it->cur)
        return nullptr;
    timer_list_link* link = it->cur;
    *it->prevNext = link->next;
    it->cur = link->next;
    timer_free(link);
    --it->list->count;
    if (!it->cur || it->index >= it->list->count)
        return nullptr;
    return it->cur->value;
}
