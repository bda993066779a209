// What the shared libraries export. They are compiled with hidden visibility: whatever is not marked stays inside.
#pragma once

#define SELVIO_EXPORT __attribute__((visibility("default")))
#define SELVIO_HIDDEN __attribute__((visibility("hidden")))
