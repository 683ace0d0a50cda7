#pragma once

// Creates every missing directory of `path`. Returns 0 when the whole path
// exists as directories afterwards (an existing directory is success),
// nonzero otherwise.
extern "C" int utl_make_path(const char* path);
