#pragma once

// Marks what the shared library offers to other programs; everything else stays hidden in it.
#define UTILIA_EXPORT __attribute__((visibility("default")))
