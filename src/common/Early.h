#pragma once

/// For constants that are built while a program starts. They come before all objects without such a number, so those of
/// a program may use them. With the shared library they do so in any case, since the loader starts libraries first; in
/// a static one the program's own objects would be first.
#define QVTP_EARLY [[gnu::init_priority(1000)]]
