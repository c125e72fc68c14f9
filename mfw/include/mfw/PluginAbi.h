#pragma once
// The plug-in ABI: the three functions every plug-in module exports.
//
// PluginInit(a, b, c, d): the host's opaque values; returns 1 on success.
//   Runs on the host's loading thread and must return promptly.
// PluginParams(bag): the host's start-up parameters. The bag stays owned by
//   the host; the plug-in copies what it keeps. Always returns true.
// PluginExit(): uninstalls and returns only when every thread the module
//   started has ended; afterwards the host may unload the module.

#include <mfw/PropertyBag.h>

extern "C" {
typedef int (*PluginInitFn)(void*, void*, void*, void*);
typedef bool (*PluginParamsFn)(CORE::PropertyBag*);
typedef void (*PluginExitFn)();
}
