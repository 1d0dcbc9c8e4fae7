// Fixed paths of the TV image. On the host every one of them lives under the
// host TV root, compiled in as LUMORA_TV_ROOT; on the TV the prefix is empty.
#pragma once

#ifndef LUMORA_TV_ROOT
#define LUMORA_TV_ROOT ""
#endif

#define LUMORA_TV_PATH(path) LUMORA_TV_ROOT path
