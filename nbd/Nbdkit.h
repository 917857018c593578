// nbdkit's interface for plugins, in the version that this one is written for.
#pragma once

#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>
