#pragma once

// Diagnostic log call of the controller's firmware. One record per call.
extern "C" void dlog_printf(int level, int module, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
