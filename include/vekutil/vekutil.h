/* Umbrella header: the whole public interface of libvekutil. */
#ifndef VEKUTIL_VEKUTIL_H
#define VEKUTIL_VEKUTIL_H

#include <vekutil/defs.h>
#include <vekutil/errors.h>
#include <vekutil/version.h>
#include <vekutil/memory.h>
#include <vekutil/log.h>
#include <vekutil/debug.h>
#include <vekutil/lasterror.h>
#include <vekutil/rlimit.h>
#include <vekutil/hexdump.h>
#include <vekutil/strutil.h>
#include <vekutil/timeutil.h>
#include <vekutil/loader.h>
#include <vekutil/file.h>
#include <vekutil/file.lock.h>
#include <vekutil/fileinfo.h>
#include <vekutil/directory.h>
#include <vekutil/json.h>
#include <vekutil/crc32.h>
#include <vekutil/crc16.h>
#include <vekutil/base32.h>
#include <vekutil/base64.h>
#include <vekutil/random.h>
#include <vekutil/hardwareid.h>
#include <vekutil/guid.h>
#include <vekutil/convert.h>
#include <vekutil/blob.h>
#include <vekutil/bool.h>
#include <vekutil/ptree.h>
#include <vekutil/btree.h>
#include <vekutil/list.h>
#include <vekutil/instrument.h>
#include <vekutil/mutex.h>
#include <vekutil/rwlock.h>
#include <vekutil/event.h>
#include <vekutil/schevent.h>
#include <vekutil/semaphore.h>
#include <vekutil/threads.h>
#include <vekutil/queue.h>
#include <vekutil/pool.h>

#endif
