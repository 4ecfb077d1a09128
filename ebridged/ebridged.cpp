// The C face of the service: allocator, arbiter and resolver. See ebridged.h.
#include "ebridged.h"

#include <memory>
#include <new>

#include "arbiter.hpp"
#include "pvid_resolver.hpp"
#include "service.hpp"

struct ebridged_service {
    ebridged::service ids;
    ebridged::arbiter rules;
    ebridged::pvid_resolver pvids;
};

namespace
{

int32_t start(qz_mom_handle *handle, const ebridged_options *options, ebridged_service **service)
{
    std::unique_ptr<ebridged_service> made(
        new ebridged_service{{handle, options}, {handle, options}, {handle, options}});
    int32_t code = made->ids.start();
    if (code == QZ_MOM_OK)
        code = made->rules.start();
    if (code == QZ_MOM_OK)
        code = made->pvids.start();
    if (code != QZ_MOM_OK)
        return code;
    made->pvids.serve();
    *service = made.release();
    return code;
}

}  // namespace

int32_t ebridged_start(qz_mom_handle *handle, const ebridged_options *options, ebridged_service **service)
{
    if (!handle || !service || (options && options->databases && options->database_count == 0))
        return QZ_MOM_EINVAL;
    try {
        return start(handle, options, service);
    } catch (const std::bad_alloc &) {
        return QZ_MOM_ENOMEM;  // no exception gets to a program in C
    }
}

void ebridged_stop(ebridged_service *service) { delete service; }

void ebridged_get_stat(const ebridged_service *service, ebridged_stat *stat)
{
    service->ids.stat(stat);
    service->rules.stat(stat);
    service->pvids.stat(stat);
}
