// The C face of the allocator service. See ebridged.h.
#include "ebridged.h"

#include <memory>

#include "service.hpp"

struct ebridged_service {
    ebridged::service core;
};

int32_t ebridged_start(qz_mom_handle *handle, const ebridged_options *options, ebridged_service **service)
{
    if (!handle || !service || (options && options->databases && options->database_count == 0))
        return QZ_MOM_EINVAL;
    std::unique_ptr<ebridged_service> made(new ebridged_service{{handle, options}});
    const int32_t code = made->core.start();
    if (code == QZ_MOM_OK)
        *service = made.release();
    return code;
}

void ebridged_stop(ebridged_service *service) { delete service; }

void ebridged_get_stat(const ebridged_service *service, ebridged_stat *stat) { service->core.stat(stat); }
