/*
 * Intrusive doubly linked list.  A list_t knows the offset of the link
 * inside the objects it holds, so list operations take and return the
 * objects themselves.  An unlinked node has null pointers, which is what
 * list_link_active() tests.
 */
#ifndef OST_OS_LIST_H
#define OST_OS_LIST_H

#include <stddef.h>

typedef struct list_node {
	struct list_node *next;
	struct list_node *prev;
} list_node_t;

typedef struct list {
	size_t list_offset;
	list_node_t list_head; /* sentinel */
} list_t;

static inline list_node_t *
list_d2l(const list_t *l, void *obj)
{
	return (list_node_t *)((char *)obj + l->list_offset);
}

static inline void *
list_l2d(const list_t *l, list_node_t *node)
{
	return (char *)node - l->list_offset;
}

static inline void
list_create(list_t *l, size_t size, size_t offset)
{
	(void)size;
	l->list_offset = offset;
	l->list_head.next = l->list_head.prev = &l->list_head;
}

static inline int
list_is_empty(const list_t *l)
{
	return l->list_head.next == &l->list_head;
}

static inline void
list_insert_head(list_t *l, void *obj)
{
	list_node_t *n = list_d2l(l, obj);

	n->next = l->list_head.next;
	n->prev = &l->list_head;
	n->next->prev = n;
	l->list_head.next = n;
}

static inline void
list_remove(list_t *l, void *obj)
{
	list_node_t *n = list_d2l(l, obj);

	n->prev->next = n->next;
	n->next->prev = n->prev;
	n->next = n->prev = NULL;
}

static inline void *
list_head(const list_t *l)
{
	return list_is_empty(l) ? NULL : list_l2d(l, l->list_head.next);
}

static inline void *
list_next(const list_t *l, void *obj)
{
	list_node_t *n = list_d2l(l, obj)->next;

	return n == &l->list_head ? NULL : list_l2d(l, n);
}

static inline void *
list_remove_head(list_t *l)
{
	void *obj = list_head(l);

	if (obj != NULL)
		list_remove(l, obj);
	return obj;
}

static inline int
list_link_active(const list_node_t *n)
{
	return n->next != NULL;
}

#endif /* OST_OS_LIST_H */
