// What happened to one record, told once and shared by all who hear of it.
#ifndef MOM_CHANGE_HPP
#define MOM_CHANGE_HPP

#include <cstdint>
#include <memory>
#include <string>

#include "record_codec.hpp"

namespace mom
{

struct change {
    uint32_t db = 0;
    int32_t cmd = 0;  // enum qz_mom_cmd
    int32_t end = 0;  // enum qz_mom_end
    std::string key;
    std::shared_ptr<const std::string> fields;  // names of the written fields, joined with commas; null: none
    std::shared_ptr<const content> body;  // the record as of this change; null where the notification has no value
    int32_t error = 0;                    // enum qz_mom_code; of answers
};
using change_ptr = std::shared_ptr<const change>;

}  // namespace mom
#endif
