// Event trigger: wakes the tag file system daemon through its FIFO.
//
// One zero byte per wake-up, written to "/tmp/.tevu/<mount point>/action_trigger"
// (the mount point's own leading slash makes the doubled slash, kept as the
// daemon creates it). The library never creates, removes or reads the FIFO.
//
// Its functions are exported and declared once, in tevul.h: this header
// states the module's contract and declares nothing more.
#ifndef TEVUL_EVENT_TRIGGER_H
#define TEVUL_EVENT_TRIGGER_H

#include "tevul.h"

#endif  // TEVUL_EVENT_TRIGGER_H
