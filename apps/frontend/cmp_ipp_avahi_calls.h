// The calls the DNS-SD announcer makes into Avahi's client libraries, which are
// opened when announcing starts rather than linked: a printer run without
// DNS-SD then does not carry libavahi, libdbus and what libdbus pulls in
// (libsystemd, libgcrypt, compression libraries), about 1.2 MB resident.
#ifndef CMP_IPP_AVAHI_CALLS_H
#define CMP_IPP_AVAHI_CALLS_H

#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/strlst.h>
#include <avahi-common/thread-watch.h>
#include <avahi-common/timeval.h>

#include <string>

#define CMP_IPP_AVAHI_CALLS(X)                                                                                     \
    X(avahi_alternative_service_name)                                                                              \
    X(avahi_client_errno)                                                                                          \
    X(avahi_client_free)                                                                                           \
    X(avahi_client_get_state)                                                                                      \
    X(avahi_client_new)                                                                                            \
    X(avahi_elapse_time)                                                                                           \
    X(avahi_entry_group_add_service_strlst)                                                                        \
    X(avahi_entry_group_add_service_subtype)                                                                       \
    X(avahi_entry_group_commit)                                                                                    \
    X(avahi_entry_group_free)                                                                                      \
    X(avahi_entry_group_get_client)                                                                                \
    X(avahi_entry_group_get_state)                                                                                 \
    X(avahi_entry_group_is_empty)                                                                                  \
    X(avahi_entry_group_new)                                                                                       \
    X(avahi_entry_group_reset)                                                                                     \
    X(avahi_free)                                                                                                  \
    X(avahi_strerror)                                                                                              \
    X(avahi_string_list_add)                                                                                       \
    X(avahi_string_list_free)                                                                                      \
    X(avahi_threaded_poll_free)                                                                                    \
    X(avahi_threaded_poll_get)                                                                                     \
    X(avahi_threaded_poll_new)                                                                                     \
    X(avahi_threaded_poll_start)                                                                                   \
    X(avahi_threaded_poll_stop)

namespace cmp_ipp_fe {

struct AvahiCalls {
#define CMP_IPP_AVAHI_SLOT(name) decltype(&::name) name = nullptr;
    CMP_IPP_AVAHI_CALLS(CMP_IPP_AVAHI_SLOT)
#undef CMP_IPP_AVAHI_SLOT
};

// Opens the libraries at the first call and keeps them open. nullptr, with the
// reason in *why, when they or one of the calls are missing.
const AvahiCalls* avahiCalls(std::string* why);

}  // namespace cmp_ipp_fe

#endif
