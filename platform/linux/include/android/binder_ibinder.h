// Binder objects by handle: an AIBinder stands for an object of this process or of another
// one. Every object has one AIBinder, however often it is received, so handles compare by
// address.
//
// Any thread may call any function. A function that sends a transaction blocks until the
// answer arrives, unless the transaction is one-way.
#pragma once

#include <android/binder_parcel.h>
#include <android/binder_status.h>
#include <stdbool.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// Method numbers of an interface, from FIRST to LAST.
enum {
  FIRST_CALL_TRANSACTION = 0x00000001,
  LAST_CALL_TRANSACTION = 0x00ffffff,
};
typedef uint32_t transaction_code_t;

enum {
  FLAG_ONEWAY = 0x01,
};
typedef uint32_t binder_flags_t;

typedef struct AIBinder AIBinder;
typedef struct AIBinder_Class AIBinder_Class;
typedef struct AIBinder_DeathRecipient AIBinder_DeathRecipient;
typedef struct AIBinder_Weak AIBinder_Weak;

// A class calls these when one of its local objects is made (the result becomes the
// object's user data), destroyed, or called.
typedef void* (*AIBinder_Class_onCreate)(void* args);
typedef void (*AIBinder_Class_onDestroy)(void* userData);
typedef binder_status_t (*AIBinder_Class_onTransact)(AIBinder* binder, transaction_code_t code,
                                                     const AParcel* in, AParcel* out);

// Makes a class of objects. It is never freed, so keep it in static storage. Null when an
// argument is null. `interfaceDescriptor` is copied.
__attribute__((warn_unused_result)) AIBinder_Class* AIBinder_Class_define(
    const char* interfaceDescriptor, AIBinder_Class_onCreate onCreate,
    AIBinder_Class_onDestroy onDestroy, AIBinder_Class_onTransact onTransact);
const char* AIBinder_Class_getDescriptor(const AIBinder_Class*);

// A local object with one strong reference, the caller's. `args` goes to onCreate.
__attribute__((warn_unused_result)) AIBinder* AIBinder_new(const AIBinder_Class*, void* args);
bool AIBinder_isRemote(const AIBinder*);
// False for ever once the remote object's process was found dead.
bool AIBinder_isAlive(const AIBinder*);
binder_status_t AIBinder_ping(AIBinder*);

void AIBinder_incStrong(AIBinder*);
void AIBinder_decStrong(AIBinder*);

// True when the object is of this class. The first time on a remote object this
// asks the object for its descriptor, a blocking call.
bool AIBinder_associateClass(AIBinder*, const AIBinder_Class*);
const AIBinder_Class* AIBinder_getClass(AIBinder*);
// Null for a remote object.
void* AIBinder_getUserData(AIBinder*);

// The caller's while this thread serves a call, else this process's.
uid_t AIBinder_getCallingUid(void);
pid_t AIBinder_getCallingPid(void);

// A parcel that holds the interface token; needs an associated class.
binder_status_t AIBinder_prepareTransaction(AIBinder*, AParcel** in);
// Always deletes *in and sets it to null. Sets *out only on STATUS_OK; the caller deletes
// it.
binder_status_t AIBinder_transact(AIBinder*, transaction_code_t code, AParcel** in, AParcel** out,
                                  binder_flags_t flags);

typedef void (*AIBinder_DeathRecipient_onBinderDied)(void* cookie);
typedef void (*AIBinder_DeathRecipient_onBinderUnlinked)(void* cookie);

// Owns the links made with it: deleting it unlinks them. Null for a null function.
__attribute__((warn_unused_result)) AIBinder_DeathRecipient* AIBinder_DeathRecipient_new(
    AIBinder_DeathRecipient_onBinderDied onBinderDied);
// Called once for each later link, when the link is gone: after onBinderDied,
// after an unlink, or at once when the link failed. The place to free cookies.
void AIBinder_DeathRecipient_setOnUnlinked(AIBinder_DeathRecipient*,
                                           AIBinder_DeathRecipient_onBinderUnlinked onUnlinked);
void AIBinder_DeathRecipient_delete(AIBinder_DeathRecipient*);

// Runs onBinderDied(cookie) once, on a pool thread, after the remote object's process has
// ended; also when that happened before, but was not noticed yet. The link exists as long
// as the recipient and a strong reference to the object do.
// STATUS_INVALID_OPERATION for a local object, STATUS_DEAD_OBJECT after its death.
binder_status_t AIBinder_linkToDeath(AIBinder*, AIBinder_DeathRecipient*, void* cookie);
// STATUS_NAME_NOT_FOUND without such a link.
binder_status_t AIBinder_unlinkToDeath(AIBinder*, AIBinder_DeathRecipient*, void* cookie);

__attribute__((warn_unused_result)) AIBinder_Weak* AIBinder_Weak_new(AIBinder*);
void AIBinder_Weak_delete(AIBinder_Weak*);
// A new strong reference, or null when the object is gone.
__attribute__((warn_unused_result)) AIBinder* AIBinder_Weak_promote(AIBinder_Weak*);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
