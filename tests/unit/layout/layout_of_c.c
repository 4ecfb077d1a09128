/* The layouts of the public records as a C program sees them. */
#include "layout.h"
#include "libcgstctrl.h"
#include "sw_ebridge.h"

#include "layouts.inc"
