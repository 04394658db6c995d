package vendor.nuv.orbsyshal_aidl;

import android.hardware.common.NativeHandle;
import android.hardware.common.fmq.MQDescriptor;
import android.hardware.common.fmq.SynchronizedReadWrite;
import vendor.nuv.orbsyshal_aidl.IOrbFdCallback;
import vendor.nuv.orbsyshal_aidl.SetFdResult;

/** Takes finished telemetry off a client's hands. */
@VintfStability
interface IOrbsyshal {
    /** The queue of the caller's next payload. False: refused. */
    boolean configure_fmq(in MQDescriptor<byte, SynchronizedReadWrite> queue);
    /** Drains total bytes from that queue and keeps them under name. */
    boolean request_read(in @utf8InCpp String name, int total);
    /** Announces a region: one descriptor; ints are its offset and length. */
    SetFdResult set_fd(in NativeHandle channel, in IOrbFdCallback callback);
    /** Announces size filled bytes at offset. 0, or why not. */
    int fd_write_to_system_dropbox(in @utf8InCpp String name, in byte[] header, int fdToken,
            int offset, int size, int compress);
    void unset_fd(int fdToken);
}
