// Singly linked list of pointer values used by the timer service.
#pragma once

#include <cstddef>

struct timer_list_link {
    timer_list_link* next;
    void* value;
};

struct timer_list {
    int count;
    timer_list_link* head;
};

struct timer_list_iter {
    timer_list_link* cur;
    timer_list_link** prevNext;  // the pointer that points at `cur`
    timer_list* list;
    int index;
};

// Zero-filled allocation / release; allocation failures are logged.
void* timer_malloc(size_t size);
void timer_free(void* p);

void timer_list_init(timer_list* l);
bool timer_list_is_empty(const timer_list* l);
// Index -1 or past the end appends, 0 prepends.  Returns the new count, or -1.
int timer_list_insert(timer_list* l, int index, void* value);
void* timer_list_get(const timer_list* l, int index);
// Removes the link at `index` and returns its value (nullptr when none).
void* timer_list_remove(timer_list* l, int index);
// Removes every link, calling `fn` on each value.
void timer_list_pop_all(timer_list* l, void (*fn)(void* value));
void timer_list_destroy(timer_list* l);

void* timer_list_iter_begin(timer_list* l, timer_list_iter* it);
void* timer_list_iter_next(timer_list_iter* it);
// Unlinks and frees the current link (not its value); returns the next value.
void* timer_list_iter_remove(timer_list_iter* it);
