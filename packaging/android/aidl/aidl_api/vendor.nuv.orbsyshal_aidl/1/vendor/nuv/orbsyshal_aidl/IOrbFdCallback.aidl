// A snapshot of the interface, from which no build generates: checked, never edited.
// Folder 1 is version 1, frozen; `current` is what the sources say now.

package vendor.nuv.orbsyshal_aidl;
@VintfStability
interface IOrbFdCallback {
  void fd_write_done(int fdToken, int a, int b, int c);
}
