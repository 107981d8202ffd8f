/* SPDX-License-Identifier: LGPL-2.1-or-later
 *
 * Public header of the stand-in biometric framework.
 *
 * A driver plug-in includes this file alone. A service (or a client such as wrxctl) loads the
 * plug-in, hands its ops_configure a zeroed bio_dev and the loaded driver configuration, and from
 * then on calls the callbacks that the driver put into the record, one operation at a time. Only
 * ops_stop_by_user may be called from a second thread while an operation runs; the setters and
 * getters of the status words are safe for that. */
#ifndef LIBBIOMETRIC_H
#define LIBBIOMETRIC_H

#include <glib.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct sqlite3;

/* ---- enumerations ------------------------------------------------------------------------- */

typedef enum {
  BioT_FingerPrint = 0,
  BioT_FingerVein,
  BioT_Iris,
  BioT_Face,
  BioT_VoicePrint
} BioType;
typedef enum { StoT_Device = 0, StoT_OS, StoT_Mix } StoType;
typedef enum { EigT_Data = 0, EigT_Eigenvalue, EigT_Eigenvalue_Data } EigType;
typedef enum { VerT_Hardware = 0, VerT_Software, VerT_Mix, VerT_Other } VerType;
typedef enum { IdT_Hardware = 0, IdT_Software, IdT_Mix, IdT_Other } IdType;
typedef enum { BusT_Serial = 0, BusT_USB, BusT_PCIE, BusT_Any, BusT_Other } BusType;

/* What the caller of an operation wants of it; this framework always starts one. */
typedef enum { ACTION_START = 0, ACTION_STOP = 1 } OpsActions;

/* Kinds of operation; an operation's own status, result and notification numbers begin at a
 * hundred times its kind. */
typedef enum {
  OPS_TYPE_COMM = 0,
  OPS_TYPE_OPEN = 1,
  OPS_TYPE_ENROLL = 2,
  OPS_TYPE_VERIFY = 3,
  OPS_TYPE_IDENTIFY = 4,
  OPS_TYPE_CAPTURE = 5,
  OPS_TYPE_SEARCH = 6,
  OPS_TYPE_CLEAN = 7,
  OPS_TYPE_GET_FLIST = 8
} OpsType;

/* Status of the device: what it is doing now. */
typedef enum {
  DEVS_COMM_IDLE = 0,
  DEVS_COMM_DISABLE = 3,
  DEVS_OPEN_DOING = 101,
  DEVS_ENROLL_DOING = 201,
  DEVS_VERIFY_DOING = 301,
  DEVS_IDENTIFY_DOING = 401,
  DEVS_CAPTURE_DOING = 501,
  DEVS_SEARCH_DOING = 601,
  DEVS_CLEAN_DOING = 701,
  DEVS_GET_FLIST_DOING = 801
} DevStatus;

/* Result of the last operation. */
typedef enum {
  OPS_COMM_SUCCESS = 0,
  OPS_COMM_FAIL = 1,
  OPS_COMM_ERROR = 2,
  OPS_COMM_STOP_BY_USER = 3,
  OPS_OPEN_SUCCESS = 100,
  OPS_OPEN_FAIL = 101,
  OPS_ENROLL_SUCCESS = 200,
  OPS_ENROLL_FAIL = 201,
  OPS_ENROLL_ERROR = 202,
  OPS_ENROLL_TIMEOUT = 204,
  OPS_VERIFY_MATCH = 300,
  OPS_VERIFY_NO_MATCH = 301,
  OPS_VERIFY_ERROR = 302,
  OPS_VERIFY_TIMEOUT = 304,
  OPS_IDENTIFY_MATCH = 400,
  OPS_IDENTIFY_NO_MATCH = 401,
  OPS_IDENTIFY_ERROR = 402,
  OPS_IDENTIFY_TIMEOUT = 404,
  OPS_CAPTURE_SUCCESS = 500,
  OPS_CAPTURE_FAIL = 501,
  OPS_SEARCH_MATCH = 600,
  OPS_SEARCH_NO_MATCH = 601,
  OPS_SEARCH_ERROR = 602,
  OPS_SEARCH_TIMEOUT = 604,
  OPS_CLEAN_SUCCESS = 700,
  OPS_CLEAN_FAIL = 701,
  OPS_GET_FLIST_SUCCESS = 800,
  OPS_GET_FLIST_FAIL = 801
} OpsResult;

/* Notification: what to tell the user. Value 9 is a driver's own text, asked of it through
 * ops_get_notify_mid_mesg. */
typedef enum {
  NOTIFY_COMM_IDLE = 0,
  NOTIFY_COMM_STOP_BY_USER = 3,
  NOTIFY_COMM_DISABLE = 5,
  NOTIFY_OPEN_SUCCESS = 100,
  NOTIFY_OPEN_FAIL = 101,
  NOTIFY_ENROLL_SUCCESS = 200,
  NOTIFY_ENROLL_FAIL = 201,
  NOTIFY_ENROLL_ERROR = 202,
  NOTIFY_ENROLL_TIMEOUT = 204,
  NOTIFY_VERIFY_MATCH = 300,
  NOTIFY_VERIFY_NO_MATCH = 301,
  NOTIFY_VERIFY_ERROR = 302,
  NOTIFY_VERIFY_TIMEOUT = 304,
  NOTIFY_IDENTIFY_MATCH = 400,
  NOTIFY_IDENTIFY_NO_MATCH = 401,
  NOTIFY_IDENTIFY_ERROR = 402,
  NOTIFY_IDENTIFY_TIMEOUT = 404,
  NOTIFY_CAPTURE_FAIL = 501,
  NOTIFY_SEARCH_MATCH = 600,
  NOTIFY_SEARCH_NO_MATCH = 601,
  NOTIFY_SEARCH_ERROR = 602,
  NOTIFY_SEARCH_TIMEOUT = 604,
  NOTIFY_CLEAN_SUCCESS = 700,
  NOTIFY_CLEAN_FAIL = 701
} NotifyMid;

/* ---- records ------------------------------------------------------------------------------ */

/* One sample of a feature. `no` is the template slot on the device that holds it. */
typedef struct feature_sample {
  int dbid;   /* row in the database, -1 before it is stored */
  int no;     /* template slot on the device */
  char* data; /* eigenvalue text; empty where the device keeps the template */
  struct feature_sample* next;
} feature_sample;

/* One stored feature: a finger of a user. */
typedef struct feature_info {
  int uid;                   /* user */
  int biotype;               /* BioType */
  char* driver;              /* device_name of the driver that enrolled it */
  int index;                 /* which of the user's features */
  char* index_name;          /* the user's name for it */
  feature_sample* sample;    /* its samples, in order */
  struct feature_info* next; /* the next feature of a list, NULL at its end */
} feature_info;

/* One row of a driver's USB id table; a row of zeros ends the table. */
typedef struct usb_id {
  uint16_t idVendor;
  uint16_t idProduct;
  const char* description;
} usb_id;

typedef struct bio_info {
  BioType biotype;
  StoType stotype;
  EigType eigtype;
  VerType vertype;
  IdType idtype;
  BusType bustype;
} bio_info;

typedef struct bio_usb_info {
  const usb_id* id_table;
  int driver_data;
} bio_usb_info;

typedef struct bio_api_version {
  int major;
  int minor;
  int function;
} bio_api_version;

typedef struct bio_serial_info {
  int fd;
  char* path;
} bio_serial_info;
typedef struct bio_pci_info {
  int vendor;
  int device;
} bio_pci_info;

/* A device as driver and framework share it. The framework zeroes it, the driver's ops_configure
 * fills identity, id table, callbacks, api version, enable and dev_priv. */
typedef struct bio_dev bio_dev;
struct bio_dev {
  int driver_id;
  char* device_name;
  char* full_name;
  int enable;
  int dev_num;
  bio_info bioinfo;
  bio_serial_info serial_info;
  bio_usb_info usb_info;
  bio_pci_info pci_info;
  int max_user;
  int max_sample;
  int sample_times;
  bio_api_version drv_api_version;

  int (*ops_configure)(bio_dev* dev, GKeyFile* conf);
  int (*ops_driver_init)(bio_dev* dev);
  void (*ops_free)(bio_dev* dev);
  int (*ops_discover)(bio_dev* dev);
  int (*ops_open)(bio_dev* dev);
  void (*ops_close)(bio_dev* dev);
  char* (*ops_capture)(bio_dev* dev, OpsActions action);
  int (*ops_enroll)(bio_dev* dev, OpsActions action, int uid, int idx, char* bio_idx_name);
  int (*ops_verify)(bio_dev* dev, OpsActions action, int uid, int idx);
  int (*ops_identify)(bio_dev* dev, OpsActions action, int uid, int idx_start, int idx_end);
  feature_info* (*ops_search)(bio_dev* dev, OpsActions action, int uid, int idx_start, int idx_end);
  int (*ops_clean)(bio_dev* dev, OpsActions action, int uid, int idx_start, int idx_end);
  feature_info* (*ops_get_feature_list)(bio_dev* dev, OpsActions action, int uid, int idx_start,
                                        int idx_end);
  int (*ops_feature_rename)(bio_dev* dev, int uid, int idx, char* new_name);
  int (*ops_stop_by_user)(bio_dev* dev, int waiting_ms);
  void (*ops_status_changed_callback)(bio_dev* dev, int type);
  const char* (*ops_get_dev_status_mesg)(bio_dev* dev);
  const char* (*ops_get_ops_result_mesg)(bio_dev* dev);
  const char* (*ops_get_notify_mid_mesg)(bio_dev* dev);
  void (*ops_attach)(bio_dev* dev);
  void (*ops_detach)(bio_dev* dev);

  /* Words of the framework: use the accessors below, never the fields. */
  int dev_status;
  int ops_result;
  int notify_mid;

  GList* extension_before; /* extension lists and plug-in handle: the host's own */
  GList* extension_after;
  void* plugin_handle;
  void* dev_priv; /* the driver's private record */
};

/* ---- framework functions that drivers call ------------------------------------------------ */

/* A driver id that no loaded driver has. */
int bio_get_empty_driver_id(void);

/* 1 unless the driver's group in `conf` says "Enable=false" (an absent key or group enables). */
int bio_dev_is_enable(bio_dev* dev, GKeyFile* conf);

/* The framework's time limit for one operation, milliseconds. */
int bio_get_ops_timeout_ms(void);

/* Setters and getters of the three words. The `abs` setters take a number that already carries
 * its operation's hundred; the plain ones take a common number. Both store it as it is. Each
 * change reaches the hook. Safe from any thread. */
void bio_set_dev_status(bio_dev* dev, int status);
int bio_get_dev_status(bio_dev* dev);
void bio_set_ops_result(bio_dev* dev, int result);
void bio_set_ops_abs_result(bio_dev* dev, int result);
int bio_get_ops_result(bio_dev* dev);
void bio_set_notify_mid(bio_dev* dev, int mid);
void bio_set_notify_abs_mid(bio_dev* dev, int mid);
int bio_get_notify_mid(bio_dev* dev);

/* Texts for the words: the driver's where its callback gives one, else the framework's own.
 * Never NULL; valid until the next change of the word. */
const char* bio_get_dev_status_mesg(bio_dev* dev);
const char* bio_get_ops_result_mesg(bio_dev* dev);
const char* bio_get_notify_mid_mesg(bio_dev* dev);

/* Progress of the operation named `opsname`, in percent. */
void bio_process_changed(bio_dev* dev, const char* opsname, int percent, const char* message);

/* Lowest index in start..end (end -1: no upper end) that `uid` has no feature under; -1: none. */
int bio_common_get_empty_index(bio_dev* dev, int uid, int start, int end);

/* ---- feature database --------------------------------------------------------------------- */

/* Opens the feature database and checks that it can be read and written. NULL when it is
 * missing its rights, corrupt or locked for longer than the busy limit; the reason has then gone
 * to the logger and the hook. */
struct sqlite3* bio_sto_connect_db(void);
void bio_sto_disconnect_db(struct sqlite3* db);

/* Features of `uid` (-1: of every user), of one kind and driver, with index in start..end (end -1:
 * no upper end), ordered by uid, then index. NULL: none, or an error, which was reported. */
feature_info* bio_sto_get_feature_info(struct sqlite3* db, int uid, int biotype, const char* driver,
                                       int start, int end);

/* Stores a feature with its samples in one transaction, replacing one of the same uid, kind,
 * driver and index. 0, or -1 with nothing changed. */
int bio_sto_set_feature_info(struct sqlite3* db, feature_info* info);

/* Removes features (selection as above) with their samples in one transaction. 0 or -1. */
int bio_sto_clean_feature_info(struct sqlite3* db, int uid, int biotype, const char* driver,
                               int start, int end);

/* New records on the heap; texts are copied. */
feature_info* bio_sto_new_feature_info(int uid, int biotype, const char* driver, int index,
                                       const char* index_name);
feature_sample* bio_sto_new_feature_sample(int dbid, const char* data);

/* Frees a list with all that hangs on it; NULL is allowed. */
void bio_sto_free_feature_info_list(feature_info* info);

/* Writes a list to the service log, one line a feature and one a sample. */
void print_feature_info(feature_info* info);

/* ---- logger ------------------------------------------------------------------------------- */

void bio_print_debug(const char* format, ...) __attribute__((format(printf, 1, 2)));
void bio_print_info(const char* format, ...) __attribute__((format(printf, 1, 2)));
void bio_print_error(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* ---- for whoever hosts the framework ------------------------------------------------------ */

typedef enum {
  BIO_EVENT_STATUS = 0,  /* number: new device status, text: the framework's words for it */
  BIO_EVENT_RESULT,      /* number: new operation result, text: the framework's words for it */
  BIO_EVENT_NOTIFY,      /* number: new notification, text: its message */
  BIO_EVENT_PROGRESS,    /* number: percent, text: message */
  BIO_EVENT_STORE_ERROR, /* number: SQLite's code, text: what failed and why */
  BIO_EVENT_LOG          /* number: 0 debug, 1 info, 2 error; text: the line */
} bio_event;

/* Called for every event, on the thread that caused it. `dev` is NULL for store and log events. */
typedef void (*bio_hook)(void* context, bio_dev* dev, bio_event event, int number,
                         const char* text);
void bio_host_set_hook(bio_hook hook, void* context);

/* File of the feature database (copied; NULL: the default under the XDG data directory). */
void bio_host_set_db_path(const char* path);
/* Time limit for operations in milliseconds (default 10000). */
void bio_host_set_ops_timeout_ms(int timeout_ms);
/* How long a locked database is waited for, milliseconds (default 2000). */
void bio_host_set_db_busy_ms(int wait_ms);
/* Lowest level of log lines that go to standard error while there is no hook: 0 debug, 1 info,
 * 2 error (default), 3 none. */
void bio_host_set_log_level(int level);

/* As bio_sto_get_feature_info, but tells an empty list (0) from a failed read (-1, reported). */
int bio_host_read_features(struct sqlite3* db, int uid, int biotype, const char* driver, int start,
                           int end, feature_info** list);

#ifdef __cplusplus
}
#endif

#endif
