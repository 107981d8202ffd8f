// SPDX-License-Identifier: LGPL-2.1-or-later
// The few messages of the driver that its host must recognise, because the status words do not
// tell these cases apart. They are the keys of the driver's message catalogue: what the driver
// says is their translation.
#pragma once

namespace wrx::host::driver_text {

/// The pressed finger is one of the user's already. Before kEnrolStarted it comes from the check
/// that the driver repeats for ever, after it from a press of another finger.
inline constexpr char kDuplicate[] = "按压的指纹与已有的指纹模版重复.\n";
/// The user has ten fingerprints, or the module has no free slot.
inline constexpr char kFull[] = "注册失败,指纹存储空间已满.\n";
/// The module is ready for the first of the presses.
inline constexpr char kEnrolStarted[] = "注册开始,请触摸指纹.\n";
/// A press that does not count, and why; the module waits for another.
inline constexpr char kBadQuality[] = "图像质量差,请再触摸指纹一次.\n";
inline constexpr char kSmallArea[] = "图像面积小,请再触摸指纹一次.\n";
inline constexpr char kRepeatedPosition[] = "按压的指纹与已有的指纹位置重复.\n";
inline constexpr char kBadFeature[] = "注册失败,请再触摸指纹一次.\n";
inline constexpr char kBadPress[] = "注册失败,再触摸一次.\n";

}  // namespace wrx::host::driver_text

namespace wrx::host {

/// Presses of one enrolment.
inline constexpr int kEnrolStages = 12;

}  // namespace wrx::host
