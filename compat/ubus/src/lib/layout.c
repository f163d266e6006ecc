// SPDX-License-Identifier: ISC
// The records of the public headers are shared with programs and with other builds of this library:
// their layout is fixed.

#include <libubus.h>

#include <stddef.h>

_Static_assert(sizeof(struct ubus_msghdr) == 8, "wire header");
_Static_assert(_Alignof(struct ubus_msghdr) == 4, "wire header");
_Static_assert(offsetof(struct ubus_msghdr, type) == 1, "wire header");
_Static_assert(offsetof(struct ubus_msghdr, seq) == 2, "wire header");
_Static_assert(offsetof(struct ubus_msghdr, peer) == 4, "wire header");

#ifdef __LP64__

#define SIZE(type, size) _Static_assert(sizeof(struct type) == (size), #type)
#define AT(type, member, offset) _Static_assert(offsetof(struct type, member) == (offset), #type)

SIZE(ubus_msghdr_buf, 16);
AT(ubus_msghdr_buf, data, 8);

SIZE(ubus_method, 48);
AT(ubus_method, name, 0);
AT(ubus_method, handler, 8);
AT(ubus_method, mask, 16);
AT(ubus_method, tags, 24);
AT(ubus_method, policy, 32);
AT(ubus_method, n_policy, 40);

SIZE(ubus_object_type, 32);
AT(ubus_object_type, name, 0);
AT(ubus_object_type, id, 8);
AT(ubus_object_type, methods, 16);
AT(ubus_object_type, n_methods, 24);

SIZE(ubus_object, 120);
AT(ubus_object, avl, 0);
AT(ubus_object, name, 56);
AT(ubus_object, id, 64);
AT(ubus_object, path, 72);
AT(ubus_object, type, 80);
AT(ubus_object, subscribe_cb, 88);
AT(ubus_object, has_subscribers, 96);
AT(ubus_object, methods, 104);
AT(ubus_object, n_methods, 112);

SIZE(ubus_context, 344);
AT(ubus_context, requests, 0);
AT(ubus_context, objects, 16);
AT(ubus_context, pending, 64);
AT(ubus_context, sock, 80);
AT(ubus_context, pending_timer, 96);
AT(ubus_context, local_id, 144);
AT(ubus_context, request_seq, 148);
AT(ubus_context, cancel_poll, 150);
AT(ubus_context, stack_depth, 152);
AT(ubus_context, connection_lost, 160);
AT(ubus_context, monitor_cb, 168);
AT(ubus_context, msgbuf, 176);
AT(ubus_context, msgbuf_data_len, 192);
AT(ubus_context, msgbuf_reduction_counter, 196);
AT(ubus_context, auto_subscribers, 200);
AT(ubus_context, auto_subscribe_event_handler, 216);
AT(ubus_context, request_handler, 200);

SIZE(ubus_request_data, 56);
AT(ubus_request_data, object, 0);
AT(ubus_request_data, peer, 4);
AT(ubus_request_data, seq, 8);
AT(ubus_request_data, acl, 16);
AT(ubus_request_data, deferred, 40);
AT(ubus_request_data, fd, 44);
AT(ubus_request_data, req_fd, 48);
SIZE(ubus_acl_key, 24);

SIZE(ubus_request, 104);
AT(ubus_request, list, 0);
AT(ubus_request, pending, 16);
AT(ubus_request, status_code, 32);
AT(ubus_request, status_msg, 36);
AT(ubus_request, blocked, 37);
AT(ubus_request, cancelled, 38);
AT(ubus_request, notify, 39);
AT(ubus_request, peer, 40);
AT(ubus_request, seq, 44);
AT(ubus_request, raw_data_cb, 48);
AT(ubus_request, data_cb, 56);
AT(ubus_request, fd_cb, 64);
AT(ubus_request, complete_cb, 72);
AT(ubus_request, fd, 80);
AT(ubus_request, ctx, 88);
AT(ubus_request, priv, 96);

SIZE(ubus_object_data, 24);
AT(ubus_object_data, id, 0);
AT(ubus_object_data, type_id, 4);
AT(ubus_object_data, path, 8);
AT(ubus_object_data, signature, 16);

SIZE(ubus_event_handler, 128);
AT(ubus_event_handler, cb, 120);

SIZE(ubus_subscriber, 160);
AT(ubus_subscriber, obj, 16);
AT(ubus_subscriber, cb, 136);
AT(ubus_subscriber, remove_cb, 144);
AT(ubus_subscriber, new_obj_cb, 152);

#endif
