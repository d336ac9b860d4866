#pragma once

/// The video functions of the TV service.

/// The pictures of the set, by its own numbers.
enum EProfile : int {
  PROFILE_MAIN = 1,
};

/// The video control of one picture. The service owns it: a caller does not free the pointer.
class IVideoControl {
 public:
  /// Writes the picture-size code to `*size` and returns 0. On failure returns a negative number and does not change
  /// `*size`. Any thread.
  virtual int GetPictureSize(int* size) = 0;

 protected:
  ~IVideoControl() = default;
};

class Panelbase {
 public:
  /// Sets `*control` to the control of `profile` and returns 0. On failure returns a negative number and does not
  /// change `*control`. `display` is 0 for the set's own panel. Any thread. The control exists until the process ends.
  static int CreateVideoControl(EProfile profile, int display, IVideoControl** control);
};
