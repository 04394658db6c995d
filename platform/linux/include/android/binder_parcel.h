// Reads and writes the arguments of a transaction. <binder/Parcel.h> describes the layout.
//
// A parcel may come from a hostile peer, so readers compare every length with what is left
// in the parcel before they allocate. Not thread-safe.
#pragma once

#include <android/binder_status.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct AIBinder;
typedef struct AIBinder AIBinder;
typedef struct AParcel AParcel;

AParcel* AParcel_create(void);
void AParcel_delete(AParcel*);
// Bytes from the parcel's start. setDataPosition refuses a negative position.
binder_status_t AParcel_setDataPosition(const AParcel*, int32_t position);
int32_t AParcel_getDataPosition(const AParcel*);
int32_t AParcel_getDataSize(const AParcel*);
binder_status_t AParcel_reset(AParcel*);

// Give the reader memory for `length` items: for strings bytes, including the terminator.
// -1 means null. Returning false refuses the item.
typedef bool (*AParcel_stringAllocator)(void* stringData, int32_t length, char** buffer);
typedef bool (*AParcel_byteArrayAllocator)(void* arrayData, int32_t length, int8_t** outBuffer);
typedef bool (*AParcel_int32ArrayAllocator)(void* arrayData, int32_t length, int32_t** outBuffer);

// `binder` may be null. The parcel takes a strong reference of its own.
binder_status_t AParcel_writeStrongBinder(AParcel*, AIBinder*);
// *binder is a new strong reference, or null.
binder_status_t AParcel_readStrongBinder(const AParcel*, AIBinder** binder);

// The parcel duplicates the descriptor; -1 means null.
binder_status_t AParcel_writeParcelFileDescriptor(AParcel*, int fd);
// *fd is the caller's to close, or -1.
binder_status_t AParcel_readParcelFileDescriptor(const AParcel*, int* fd);

binder_status_t AParcel_writeStatusHeader(AParcel*, const AStatus*);
// *status is the caller's to delete.
binder_status_t AParcel_readStatusHeader(const AParcel*, AStatus** status);

// UTF-8 here, UTF-16 in the parcel. A null string has length -1.
binder_status_t AParcel_writeString(AParcel*, const char* string, int32_t length);
binder_status_t AParcel_readString(const AParcel*, void* stringData, AParcel_stringAllocator);

binder_status_t AParcel_writeInt32(AParcel*, int32_t);
binder_status_t AParcel_writeInt64(AParcel*, int64_t);
binder_status_t AParcel_writeBool(AParcel*, bool);
binder_status_t AParcel_writeByte(AParcel*, int8_t);
binder_status_t AParcel_readInt32(const AParcel*, int32_t*);
binder_status_t AParcel_readInt64(const AParcel*, int64_t*);
binder_status_t AParcel_readBool(const AParcel*, bool*);
binder_status_t AParcel_readByte(const AParcel*, int8_t*);

// A null array has length -1.
binder_status_t AParcel_writeByteArray(AParcel*, const int8_t* arrayData, int32_t length);
binder_status_t AParcel_readByteArray(const AParcel*, void* arrayData, AParcel_byteArrayAllocator);
binder_status_t AParcel_writeInt32Array(AParcel*, const int32_t* arrayData, int32_t length);
binder_status_t AParcel_readInt32Array(const AParcel*, void* arrayData,
                                       AParcel_int32ArrayAllocator);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
