// The system-call layer whose syncfs makes the descriptor's own file durable on every card.
#pragma once

#include <memory>

#include "LinuxApi.h"

namespace drn {

// LinuxApi in every operation but syncfs, which is fdatasync of the descriptor it is given:
// result and errno are fdatasync's, unchanged. A File flushes with syncfs, so a File built with
// this layer has its flushed bytes on the card when the flush returns, on FAT32, exFAT and ext4
// alike. A failed fdatasync is, like a failed syncfs, only the File's "failed on output sync
// with " record: the flush still succeeds. Here the record survives a power cut once flush
// returns without that record:
// ```cpp
// File log(options, std::make_unique<DurableLinuxApi>());
// log << record;
// log.flush();
// ```
//
// Why not syncfs: Linux's FAT driver has no file-system sync of its own, so syncfs on FAT writes
// the pages and the entries but never asks the card to flush its cache, and a card with a
// volatile cache loses them at a cut. fsync and fdatasync of the file write the file's data,
// its directory entry and the allocation table, then flush the card's cache, on FAT and exFAT;
// on ext4 they commit the journal with a cache flush.
//
// Why fdatasync rather than fsync: fdatasync still writes every piece of metadata needed to read
// the data back (the size, the allocation, and on FAT and exFAT the directory entry whenever the
// size or the first cluster changed) and flushes the card's cache; it leaves out only the
// timestamps. That spares ext4 a journal commit when a flush rewrites bytes in place, and costs
// the same as fsync where a flush extends the file. A program that needs the modification time
// durable too calls fsync itself.
//
// Costs to know: the flush of a File open for reading and writing syncs twice (once for its
// output, once before it refills its input), and on FAT and exFAT every call flushes the card's
// cache even when nothing was written. Only the descriptor's own file is made durable: a new
// file's name in its directory is not (fsync the directory for that, as AtomicFile does).
class DRN_EXPORT DurableLinuxApi : public LinuxApi {
 public:
  DurableLinuxApi();
  ~DurableLinuxApi() override;
  DurableLinuxApi(const DurableLinuxApi&) = delete;
  DurableLinuxApi& operator=(const DurableLinuxApi&) = delete;

 protected:
  int DoSyncFs(int fd) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

}  // namespace drn
