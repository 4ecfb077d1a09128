// Marks the functions and objects that libsw_bridge exports; everything else stays hidden (see libsw_bridge.map).
#pragma once

#define SW_EXPORT extern "C" __attribute__((visibility("default")))
