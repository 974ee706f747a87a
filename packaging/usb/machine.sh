# shellcheck shell=bash
# To be sourced. machine DISK CONSOLE LOG OPTION ...: the guest, to be run in the folder where it was made. DISK is the
# disk with the job; CONSOLE gets what the system says, LOG what the job prints. It takes the place of the shell that
# calls it, and ends after two hours at the latest.
#
# Its clock counts instructions, as if the processor did 250 million a second, and jumps where there is nothing to do: a
# busy host does not show in the guest, and waiting costs no time.

machine()
{
    exec nice timeout 2h qemu-system-x86_64 -M pc -m 1024 -smp 1 -accel tcg -icount shift=2,sleep=off,align=off -rtc clock=vm \
        -cpu qemu64,+ssse3,+sse4.1,+sse4.2,+popcnt,+rdrand -nodefaults -no-reboot -display none -device VGA \
        -kernel vmlinuz -initrd initrd.img -append 'root=/dev/vda rw console=ttyS0 quiet panic=-1 edd=off
            systemd.show_status=0 mitigations=off nowatchdog tsc=unstable clocksource=acpi_pm' \
        -drive file=root.qcow2,if=virtio,format=qcow2 -drive "file=$1,if=virtio,format=raw,readonly=on" \
        -serial "file:$2" -device virtio-serial -chardev "file,id=log,path=$3" \
        -device virtconsole,chardev=log "${@:4}"
}
