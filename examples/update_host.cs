// A host of the firmware-update library in C#: the library's functions, an update as an object, and a
// small program around both.
//
//   usage: update_host list
//          update_host usb PORT FILE
//          update_host ftdi SERIAL BAUD FILE
//
// An empty PORT or SERIAL ("") takes the first device found. Ctrl-C asks the update to stop. The library
// (FirmwareUpdater.dll, libFirmwareUpdater.so) lies beside the program, which has as many bits.
using System;
using System.Collections.Generic;
using System.Runtime.InteropServices;
using System.Text;
using System.Threading;
using System.Threading.Tasks;

namespace UpdateHost
{
    /// <summary>The library's functions. A bool has one byte and a text is UTF-8; both differ from .NET's
    /// defaults.</summary>
    internal static class Native
    {
        private const string Library = "FirmwareUpdater";

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int get_last_error();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern float get_progress();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool get_resetted_modules([Out] byte[] buffer, uint index);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void list_devices();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void stop_update();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool update_ftdi_device(
            [MarshalAs(UnmanagedType.LPUTF8Str)] string serialNumber,
            uint baudRate,
            [MarshalAs(UnmanagedType.I1)] bool echo,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string updateFile,
            [MarshalAs(UnmanagedType.I1)] bool skipIdentityCheck,
            [MarshalAs(UnmanagedType.I1)] bool extendedErase,
            [MarshalAs(UnmanagedType.I1)] bool bootloaderOnly);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        internal static extern bool update_usb_device(
            [MarshalAs(UnmanagedType.LPUTF8Str)] string port,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string updateFile,
            [MarshalAs(UnmanagedType.I1)] bool skipIdentityCheck,
            [MarshalAs(UnmanagedType.I1)] bool extendedErase,
            [MarshalAs(UnmanagedType.I1)] bool bootloaderOnly);
    }

    /// <summary>One update, in a thread of its own. The library runs one at a time.</summary>
    /// <remarks>Disposing it stops an update that still runs and waits for its end: a process that ends
    /// in mid-update leaves the device half written.</remarks>
    public sealed class FirmwareUpdate : IDisposable
    {
        private static readonly TimeSpan StopInterval = TimeSpan.FromMilliseconds(200);

        private static readonly Dictionary<int, string> Causes = new Dictionary<int, string>
        {
            {0, "the update did not begin; the console says why"},
            {1, "the device did not answer a request in time"},
            {2, "the bootloader is incompatible, or its version request was not sent"},
            {3, "the firmware does not match the device, or the hardware id request was not sent"},
            {6, "the request to open the tunnel was not sent"},
            {8, "the erase request was not sent"},
            {9, "the flash positioning request was not sent"},
            {10, "writing the flash failed"},
            {11, "the request to start the application was not sent"},
            {12, "the request to call the bootloader was not sent"},
            {13, "the firmware does not fit the device, or the size request was not sent"},
            {14, "the checksums differ, or the verify request was not sent"},
            {15, "an identity request was not sent"},
            {16, "the label could not be set"},
            {18, "the update file holds no valid firmware, or none that matches the device"},
            {19, "the request for the application's sign of life was not sent"},
            {20, "the request for the reset modules was not sent"},
        };

        private FirmwareUpdate(Func<bool> call)
        {
            Completion = Task.Factory.StartNew(
                call, CancellationToken.None, TaskCreationOptions.LongRunning, TaskScheduler.Default);
        }

        public static FirmwareUpdate OverUsb(string port, string updateFile)
        {
            return new FirmwareUpdate(() => Native.update_usb_device(
                port, updateFile, skipIdentityCheck: false, extendedErase: false, bootloaderOnly: false));
        }

        public static FirmwareUpdate OverFtdi(string serialNumber, uint baudRate, string updateFile)
        {
            return new FirmwareUpdate(() => Native.update_ftdi_device(
                serialNumber, baudRate, false, updateFile,
                skipIdentityCheck: false, extendedErase: false, bootloaderOnly: false));
        }

        /// <summary>Whether the device runs its new firmware; fails if the library cannot be loaded.</summary>
        public Task<bool> Completion { get; }

        /// <summary>The part of the firmware that has been written, from 0 to 1.</summary>
        /// <remarks>The library's value is -1 before the first transfer, and above 1 when it writes blank
        /// blocks too.</remarks>
        public static double Progress => Math.Min(1, Math.Max(0, Native.get_progress()));

        /// <summary>The cause of the last failure. Later updates that succeed do not clear it.</summary>
        public static string LastCause
        {
            get
            {
                int code = Native.get_last_error();
                return Causes.TryGetValue(code, out string text) ? text : $"error {code}";
            }
        }

        /// <summary>The names of the modules that the last update reset; read them after success.</summary>
        public static IEnumerable<string> ResetModules()
        {
            var name = new byte[3];
            for (uint i = 0; Native.get_resetted_modules(name, i); ++i)
            {
                yield return Encoding.ASCII.GetString(name);
            }
        }

        /// <summary>Asks the update to end before its next step, and returns at once. Before the update
        /// has entered the library this has no effect, so ask again while it runs.</summary>
        public void Stop()
        {
            if (!Completion.IsCompleted)
            {
                Native.stop_update();
            }
        }

        public void Dispose()
        {
            while (Task.WaitAny(new Task[] { Completion }, StopInterval) < 0)
            {
                Stop();
            }
        }
    }

    internal static class Program
    {
        private static readonly TimeSpan PollInterval = TimeSpan.FromMilliseconds(100);

        private static int Main(string[] words)
        {
            try
            {
                return RunCommand(words).GetAwaiter().GetResult();
            }
            catch (Exception e) when (e is DllNotFoundException || e is BadImageFormatException)
            {
                Console.Error.WriteLine($"the firmware-update library cannot be loaded: {e.Message}");
                return 1;
            }
        }

        private static async Task<int> RunCommand(string[] words)
        {
            if (words.Length == 1 && words[0] == "list")
            {
                Native.list_devices();
                return 0;
            }
            if (words.Length == 3 && words[0] == "usb")
            {
                return await Run(() => FirmwareUpdate.OverUsb(words[1], words[2]));
            }
            if (words.Length == 4 && words[0] == "ftdi" && uint.TryParse(words[2], out uint baudRate))
            {
                return await Run(() => FirmwareUpdate.OverFtdi(words[1], baudRate, words[3]));
            }
            Console.Error.WriteLine(
                "usage: update_host list | usb PORT FILE | ftdi SERIAL BAUD FILE");
            return 2;
        }

        private static async Task<int> Run(Func<FirmwareUpdate> start)
        {
            using (var stop = new CancellationTokenSource())
            {
                ConsoleCancelEventHandler onCtrlC = (sender, e) =>
                {
                    e.Cancel = true;  // the process goes on until the update has ended
                    stop.Cancel();
                };
                Console.CancelKeyPress += onCtrlC;
                try
                {
                    using (FirmwareUpdate update = start())
                    {
                        return await Follow(update, stop.Token);
                    }
                }
                finally
                {
                    Console.CancelKeyPress -= onCtrlC;
                }
            }
        }

        private static async Task<int> Follow(FirmwareUpdate update, CancellationToken stop)
        {
            int shown = -1;
            while (await Task.WhenAny(update.Completion, Task.Delay(PollInterval)) != update.Completion)
            {
                if (stop.IsCancellationRequested)
                {
                    update.Stop();
                }
                // A program with a window moves its progress bar here. The library draws its own on
                // standard output.
                int percent = (int)(100 * FirmwareUpdate.Progress);
                if (percent != shown)
                {
                    Console.Error.WriteLine($"progress {percent} %");
                    shown = percent;
                }
            }
            if (await update.Completion)
            {
                foreach (string name in FirmwareUpdate.ResetModules())
                {
                    Console.WriteLine($"module {name} was reset");
                }
                Console.WriteLine("updated");
                return 0;
            }
            Console.WriteLine(stop.IsCancellationRequested ? "stopped" : $"failed: {FirmwareUpdate.LastCause}");
            return 1;
        }
    }
}
