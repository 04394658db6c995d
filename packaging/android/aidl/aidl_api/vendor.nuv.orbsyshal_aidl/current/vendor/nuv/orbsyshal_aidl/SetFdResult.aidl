// A snapshot of the interface, from which no build generates: checked, never edited.
// Folder 1 is version 1, frozen; `current` is what the sources say now.

package vendor.nuv.orbsyshal_aidl;
@VintfStability
parcelable SetFdResult {
  int result;
  int fdToken;
}
