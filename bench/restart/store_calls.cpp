// The counted calls. Those that are refused are not counted: they have asked for nothing.
#include "store_calls.hpp"

#include <dlfcn.h>

#include <utility>

#include "qz_mom.h"

namespace bench
{
namespace
{

call_counts made;

// Calls the real function of that name. Each kind has its own, also where they are of one type.
template <store_call kind, typename Function, typename... Arguments>
int32_t hand_on(const char *name, Function *, Arguments... given)
{
    static auto *const real = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
    const int32_t code = real(given...);
    made[kind] += code == QZ_MOM_OK;
    return code;
}

}  // namespace

call_counts take_call_counts() { return std::exchange(made, {}); }

}  // namespace bench

using namespace bench;

extern "C" {

int32_t qz_mom_scan(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                    qz_mom_msg_cb cb, void *args)
{
    return hand_on<SCAN>(__func__, qz_mom_scan, handle, db, pattern, flags, cb, args);
}

int32_t qz_mom_subscribe_field(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                               const uint32_t *fields, const qz_mom_msg_cb *cbs, void *const *args, uint32_t count)
{
    return hand_on<SUBSCRIBE>(__func__, qz_mom_subscribe_field, handle, db, pattern, flags, fields, cbs, args, count);
}

int32_t qz_mom_hmset(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, const uint32_t *fields,
                     uint32_t count, qz_mom_msg_cb cb, void *args)
{
    return hand_on<HMSET>(__func__, qz_mom_hmset, handle, db, record, fields, count, cb, args);
}

int32_t qz_mom_set(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb, void *args)
{
    return hand_on<SET>(__func__, qz_mom_set, handle, db, record, cb, args);
}

int32_t qz_mom_clear_expire(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb,
                            void *args)
{
    return hand_on<CLEAR_EXPIRE>(__func__, qz_mom_clear_expire, handle, db, record, cb, args);
}

int32_t qz_mom_del(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb, void *args)
{
    return hand_on<DEL>(__func__, qz_mom_del, handle, db, record, cb, args);
}

int32_t qz_mom_pexpire(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, int32_t mode,
                       const qz_mom_timeval *delay, qz_mom_msg_cb cb, void *args)
{
    return hand_on<PEXPIRE>(__func__, qz_mom_pexpire, handle, db, record, mode, delay, cb, args);
}

int32_t qz_mom_del_expire(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, int32_t mode,
                          qz_mom_msg_cb cb, void *args)
{
    return hand_on<DEL_EXPIRE>(__func__, qz_mom_del_expire, handle, db, record, mode, cb, args);
}
}
