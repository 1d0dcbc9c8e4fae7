// The engine's own trace on stderr, so that a person running the service sees
// what the simulated engine does. Every line starts with "[engine]".
#pragma once

namespace qorvsim {

// QORV_SIM_QUIET=1 silences the trace; read at every engine start.
void SetQuiet(bool bQuiet);
// Times in the trace count from here (the engine start).
void MarkStart();

void Trace(const char *pFormat, ...) __attribute__((format(printf, 1, 2)));

} // namespace qorvsim
