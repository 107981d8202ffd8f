// SPDX-License-Identifier: LGPL-2.1-or-later
// The device's three words (status, result, notification), their texts, and progress. A stop
// request reads the status on another thread than the one that sets it, so the words are only
// touched atomically.

#include <atomic>

#include "events.h"
#include "messages.h"

namespace wrx::framework {
namespace {

int load(int& word) {
  return std::atomic_ref(word).load();
}
void store(int& word, int value) {
  std::atomic_ref(word).store(value);
}

const char* text_of(bio_dev* dev, Word word, int number, const char* (*ask_driver)(bio_dev* dev)) {
  const char* text = ask_driver != nullptr ? ask_driver(dev) : nullptr;
  return text != nullptr ? text : message(word, number);
}

void set_result(bio_dev* dev, int result) {
  if (dev == nullptr) return;
  store(dev->ops_result, result);
  emit(dev, BIO_EVENT_RESULT, result, message(Word::Result, result));
}

void set_notify(bio_dev* dev, int mid) {
  if (dev == nullptr) return;
  store(dev->notify_mid, mid);
  const QuietLog quiet;
  const char* text = text_of(dev, Word::Notify, mid, dev->ops_get_notify_mid_mesg);
  emit(dev, BIO_EVENT_NOTIFY, mid, text);
}

}  // namespace
}  // namespace wrx::framework

using namespace wrx::framework;

extern "C" {

void bio_set_dev_status(bio_dev* dev, int status) {
  if (dev == nullptr) return;
  store(dev->dev_status, status);
  emit(dev, BIO_EVENT_STATUS, status, message(Word::Status, status));
}

int bio_get_dev_status(bio_dev* dev) {
  return dev != nullptr ? load(dev->dev_status) : 0;
}

void bio_set_ops_result(bio_dev* dev, int result) {
  set_result(dev, result);
}
void bio_set_ops_abs_result(bio_dev* dev, int result) {
  set_result(dev, result);
}
int bio_get_ops_result(bio_dev* dev) {
  return dev != nullptr ? load(dev->ops_result) : 0;
}

void bio_set_notify_mid(bio_dev* dev, int mid) {
  set_notify(dev, mid);
}
void bio_set_notify_abs_mid(bio_dev* dev, int mid) {
  set_notify(dev, mid);
}
int bio_get_notify_mid(bio_dev* dev) {
  return dev != nullptr ? load(dev->notify_mid) : 0;
}

const char* bio_get_dev_status_mesg(bio_dev* dev) {
  if (dev == nullptr) return "";
  return text_of(dev, Word::Status, load(dev->dev_status), dev->ops_get_dev_status_mesg);
}

const char* bio_get_ops_result_mesg(bio_dev* dev) {
  if (dev == nullptr) return "";
  return text_of(dev, Word::Result, load(dev->ops_result), dev->ops_get_ops_result_mesg);
}

const char* bio_get_notify_mid_mesg(bio_dev* dev) {
  if (dev == nullptr) return "";
  return text_of(dev, Word::Notify, load(dev->notify_mid), dev->ops_get_notify_mid_mesg);
}

void bio_process_changed(bio_dev* dev, const char* opsname, int percent, const char* message) {
  (void)opsname;  // one operation at a time: the host knows which
  emit(dev, BIO_EVENT_PROGRESS, percent, message != nullptr ? message : "");
}

}  // extern "C"
