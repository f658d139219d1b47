// Front end of the configuration service: object access by id and
// instance-id record, path resolution, requests by type and the DAL calls.
// Every call is thread-safe.  JSON objects returned belong to the caller;
// objects passed in stay the caller's.
#pragma once

#include <json-c/json.h>

#include <cstddef>
#include <cstdint>

// Instance-id record: `level` instance numbers in use, outermost first.
struct objIndex_t {
    uint8_t level;
    uint8_t idx[6];
};

// Return codes of the configuration service.
enum {
    WCFG_RET_OFFSET = -22,
    WCFG_DELETE_REJECT = -21,
    WCFG_REQUEST_REJECT = -20,
    WCFG_REQUEST_POSTPONED = -19,
    WCFG_INVALID_OBJECT = -18,
    WCFG_INVALID_PARAM_VALUE = -17,
    WCFG_INVALID_PARAM_VALUE_LENGTH = -16,
    WCFG_INVALID_IMAGE = -15,
    WCFG_INVALID_ARGUMENTS = -14,
    WCFG_SET_READ_ONLY_PARAM = -13,
    WCFG_EXCEED_MAX_INS_NUM = -12,
    WCFG_INS_CREATE_ERR = -11,
    WCFG_NOT_INSTANCE = -10,
    WCFG_SET_ATTR_ERROR = -9,
    WCFG_INVALID_FORMAT = -8,
    WCFG_NOT_FOUND = -7,
    WCFG_NO_SUCH_OBJECT = -6,
    WCFG_INTERNAL_ERROR = -5,
    WCFG_NO_SUCH_PARAMETER = -4,
    WCFG_ERROR_PARAMETER_TYPE = -3,
    WCFG_INVALID_EID = -2,
    WCFG_TIMEOUT = -1,
    WCFG_SUCCESS = 0,
    WCFG_SUCCESS_AND_NO_REPLY = 1,
    WCFG_NO_MORE_INSTANCE = 2,
    WCFG_EMPTY_OBJECT = 3,
    WCFG_OBJECT_UPDATED = 4,
    WCFG_OBJECT_WITHOUT_PARAMETER = 5,
    WCFG_TR98_DATA_MODEL = 6,
    WCFG_DELAY_APPLY = 7,
    WCFG_SAME_IMAGE = 8,
};

// Flags of wcfgFeObjJsonSetWithAdditions: apply, save, notify, partial write.
enum : uint32_t {
    WCFG_FLAG_APPLY = 0x1,
    WCFG_FLAG_SAVE = 0x2,
    WCFG_FLAG_NOTIFY = 0x20000000,
    WCFG_FLAG_PARTIAL = 0x40000000,
};
#define WCFG_APPLY_FLAGS 0x60000003u

// Requests by type (wcfgFeReqSend).
enum : uint32_t {
    WCFG_REQ_UPGRADE = 7,
    WCFG_REQ_RESET = 8,
    WCFG_REQ_IMAGE_CHECK = 19,
    WCFG_REQ_REBOOT = 0x800000d3,
};

// The data-model-changed notice sent to every registered bus endpoint.
#define WCFG_MSG_DATA_MODEL_CHANGED 0x800000e7u

// Resolves a TR-181 path ("Device.NAT.PortMapping.3.", "IP.Interface.2",
// "Device.NAT.PortMapping.i") to an object id and fills the record; a final
// "i" names a new instance (number 0).  Negative when no object matches.
int32_t wcfgFeObjNameToObjId(const char* path, objIndex_t* iid);

// Gets one instance (with update: the object's refresh runs first).
int wcfgFeObjJsonGet(int32_t oid, objIndex_t* iid, json_object** out);
int wcfgFeObjJsonGetWithoutUpdate(int32_t oid, objIndex_t* iid, json_object** out);
// The next instance after the record; WCFG_NO_MORE_INSTANCE at the end.
int wcfgFeObjJsonGetNext(int32_t oid, objIndex_t* iid, json_object** out);
int wcfgFeObjJsonGetNextWithoutUpdate(int32_t oid, objIndex_t* iid, json_object** out);
// Partial write; `flags` bits as above.  `feedback` and `additions` may be null.
int wcfgFeObjJsonSetWithAdditions(int32_t oid, objIndex_t* iid, json_object* values,
                                  json_object** feedback, uint32_t flags, void* additions);
// Write that marks the object pending; the next applying write applies it.
int wcfgFeObjJsonSetWithoutApply(int32_t oid, objIndex_t* iid, json_object* values,
                                 json_object** feedback);
// Adds an instance; the new number is written at position `level`.
int wcfgFeObjJsonAdd(int32_t oid, objIndex_t* iid, void* reserved);
int wcfgFeObjJsonDel(int32_t oid, objIndex_t* iid, void* reserved);

// A number that changes whenever a write to the configuration commits, in
// any process: a reader that keeps something derived from the configuration
// knows from it when to derive again.
uint64_t wcfgFeDataVersion(void);
// The change journal's position of what this thread reads: the number of the
// last change whose effect its reads show (later ones may show too, an
// earlier one never misses).  An event stream resumed from it misses nothing.
uint64_t wcfgFeJournalPosition(void);
// Records in the change journal a change that the store cannot see itself:
// a view of the configuration that a program computes (kind: 1 changed,
// 2 added, 3 deleted, as wcfg::JournalKind).  0, or WCFG_INTERNAL_ERROR.
int wcfgFeNoteChange(int kind, const char* path);

// Sends a request by type (reboot, reset, image check, upgrade) with an
// optional payload (the image path).
int wcfgFeReqSend(uint32_t type, const char* payload);

// Whom the calls of the current thread act for.  Writes to the login
// configuration (its groups and accounts) and to the trust domains are checked
// against it:
//   WCFG_CALLER_DEVICE  the device itself: wcfgctl and the services (the
//                       default of every thread)
//   WCFG_CALLER_NONE    a network client whose session is not known (every
//                       connection thread of the HTTP server starts so): none
//   1, 2, 3 ...         a REST session of that login group: its own group and
//                       less privileged ones (higher numbers); privileges and
//                       trust domains from group 1 only
// Account secrets ("Password", "shadow") change only through the account
// editor, whoever the caller.  A refused write changes nothing and returns
// WCFG_REQUEST_REJECT.
enum { WCFG_CALLER_NONE = -1, WCFG_CALLER_DEVICE = 0 };
void wcfgFeSetCaller(int caller);
int wcfgFeGetCaller(void);

// DAL: the device's operation mode (0 router, 1 access point, 2 extender).
int wcfgFeDalGetOpertaionMode(void);
// DAL: account editor.  Request members: "Username", "new_Username",
// "Password", "verifyNewpassword", "oldPw", "DAL_LOGIN_LEVEL", and optionally
// "DAL_ACCOUNT_LOCKED" (true: the caller has locked the account; its old
// password counts as wrong).  The new values are checked first, then the old
// password.  Returns 0, or non-zero with a reply text in `reply`.  An unknown
// user name and a wrong old password get the same reply,
// WCFG_DAL_BAD_CREDENTIALS, after the same work.
int wcfgFeDal_User_Account_Edit(json_object* request, char* reply, size_t size);
#define WCFG_DAL_BAD_CREDENTIALS "Invalid Username or Password"

// Sets the caller of the current thread for the rest of a scope.
class WcfgCallerScope {
  public:
    explicit WcfgCallerScope(int caller) : saved_(wcfgFeGetCaller()) { wcfgFeSetCaller(caller); }
    ~WcfgCallerScope() { wcfgFeSetCaller(saved_); }
    WcfgCallerScope(const WcfgCallerScope&) = delete;
    WcfgCallerScope& operator=(const WcfgCallerScope&) = delete;

  private:
    int saved_;
};
