/* A store client that takes everything over and does nothing of it: the calls that the library makes. */
#include "qz_mom.h"

int32_t qz_mom_client_connect(qz_mom_handle *handle, uint32_t db, qz_mom_connected_cb cb, void *args)
{
    (void)handle, (void)db, (void)cb, (void)args;
    return QZ_MOM_OK;
}

int32_t qz_mom_client_set_reconnect_cb(qz_mom_handle *handle, uint32_t db, qz_mom_reconnect_cb cb, void *args)
{
    (void)handle, (void)db, (void)cb, (void)args;
    return QZ_MOM_OK;
}

int32_t qz_mom_set(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb, void *args)
{
    (void)handle, (void)db, (void)record, (void)cb, (void)args;
    return QZ_MOM_OK;
}

int32_t qz_mom_hmset(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, const uint32_t *fields,
                     uint32_t count, qz_mom_msg_cb cb, void *args)
{
    (void)handle, (void)db, (void)record, (void)fields, (void)count, (void)cb, (void)args;
    return QZ_MOM_OK;
}

int32_t qz_mom_hmupdate(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, const uint32_t *fields,
                        uint32_t count, qz_mom_msg_cb cb, void *args)
{
    (void)handle, (void)db, (void)record, (void)fields, (void)count, (void)cb, (void)args;
    return QZ_MOM_OK;
}

int32_t qz_mom_del(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb, void *args)
{
    (void)handle, (void)db, (void)record, (void)cb, (void)args;
    return QZ_MOM_OK;
}

int32_t qz_mom_pexpire(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, int32_t mode,
                       const qz_mom_timeval *delay, qz_mom_msg_cb cb, void *args)
{
    (void)handle, (void)db, (void)record, (void)mode, (void)delay, (void)cb, (void)args;
    return QZ_MOM_OK;
}

int32_t qz_mom_pexpire_sync(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, int32_t mode,
                            const qz_mom_timeval *delay)
{
    (void)handle, (void)db, (void)record, (void)mode, (void)delay;
    return QZ_MOM_OK;
}

int32_t qz_mom_del_expire(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, int32_t mode,
                          qz_mom_msg_cb cb, void *args)
{
    (void)handle, (void)db, (void)record, (void)mode, (void)cb, (void)args;
    return QZ_MOM_OK;
}

int32_t qz_mom_clear_expire(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb,
                            void *args)
{
    (void)handle, (void)db, (void)record, (void)cb, (void)args;
    return QZ_MOM_OK;
}

int32_t qz_mom_scan(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                    qz_mom_msg_cb cb, void *args)
{
    (void)handle, (void)db, (void)pattern, (void)flags, (void)cb, (void)args;
    return QZ_MOM_OK;
}

int32_t qz_mom_subscribe(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                         qz_mom_msg_cb cb, void *args)
{
    (void)handle, (void)db, (void)pattern, (void)flags, (void)cb, (void)args;
    return QZ_MOM_OK;
}

int32_t qz_mom_subscribe_field(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                               const uint32_t *fields, const qz_mom_msg_cb *cbs, void *const *args, uint32_t count)
{
    (void)handle, (void)db, (void)pattern, (void)flags, (void)fields, (void)cbs, (void)args, (void)count;
    return QZ_MOM_OK;
}
