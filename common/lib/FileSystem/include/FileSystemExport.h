// Marks the classes and functions that libdrx_FileSystem exports; everything else is hidden.
#pragma once

#define DRN_EXPORT __attribute__((visibility("default")))
