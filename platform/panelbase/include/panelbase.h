#pragma once

/// The TV service's video side.

/// Which of the set's pictures a control is for. The set numbers them; 1 is the main picture.
enum EProfile : int {
  PROFILE_MAIN = 1,
};

/// The video control of one picture. The service owns every control: a caller uses the pointer and drops it.
class IVideoControl {
 public:
  /// Puts the picture-size code into `*size`. Returns 0, or a negative number and leaves `*size` alone. Any thread.
  virtual int GetPictureSize(int* size) = 0;

 protected:
  ~IVideoControl() = default;
};

class Panelbase {
 public:
  /// Points `*control` at the control of `profile`; leaves it alone when none is to be had. `display` is 0 for the
  /// set's own panel. Returns 0 or a negative number. Any thread; the control lives as long as the process.
  static int CreateVideoControl(EProfile profile, int display, IVideoControl** control);
};
