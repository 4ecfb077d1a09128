/* The layouts of the public records as a C program sees them. */
#include "layout.h"
#include "libcgstctrl.h"
#include "sw_ebridge.h"

#include "layouts.inc"

#undef RECORD
#undef LAYOUT
#define RECORD(type, bytes32, bytes64) {#type, sizeof(type)},
#define LAYOUT(type, field, at32, at64) {#type "." #field, offsetof(type, field)},

const struct layout_row layout_rows_of_c[] = {
#include "layouts.inc"
    {NULL, 0},
};
