#pragma once

/// Fills each standard descriptor that the caller has closed with one on which reads and writes
/// fail as on a closed one, and which is closed again on exec. Its number would otherwise go to the
/// next file or socket opened, which then got the program's output. To be called first in `main`.
void reserveStandardDescriptors();
