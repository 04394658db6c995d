// A snapshot of the interface, from which no build generates: checked, never edited.
// Folder 1 is version 1, frozen; `current` is what the sources say now.

package vendor.nuv.orbsyshal_aidl;
@VintfStability
interface IOrbsyshal {
  boolean configure_fmq(in android.hardware.common.fmq.MQDescriptor<byte,android.hardware.common.fmq.SynchronizedReadWrite> queue);
  boolean request_read(in @utf8InCpp String name, int total);
  vendor.nuv.orbsyshal_aidl.SetFdResult set_fd(in android.hardware.common.NativeHandle channel, in vendor.nuv.orbsyshal_aidl.IOrbFdCallback callback);
  int fd_write_to_system_dropbox(in @utf8InCpp String name, in byte[] header, int fdToken, int offset, int size, int compress);
  void unset_fd(int fdToken);
}
