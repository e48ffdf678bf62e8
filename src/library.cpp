// libMVCore.so is the whole mvcore_core archive; this unit exists because a shared library target
// needs at least one source of its own. The library keeps no load-time state: everything it
// shares lives in the ConnectionState, made on first use.
