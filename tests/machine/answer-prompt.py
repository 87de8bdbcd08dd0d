# Runs COMMAND in a terminal of its own, types PASSWORD at its first password
# prompt, and prints what the terminal showed; exits with COMMAND's status.
#   answer-prompt.py PASSWORD COMMAND [ARG...]
import os, pty, sys, time, select
argv = sys.argv[2:]
password = sys.argv[1]
pid, fd = pty.fork()
if pid == 0:
    os.execvp(argv[0], argv)
out = b""
answered = False
deadline = time.time() + 60
while time.time() < deadline:
    r, _, _ = select.select([fd], [], [], 0.5)
    if fd in r:
        try:
            data = os.read(fd, 4096)
        except OSError:
            break
        if not data:
            break
        out += data
        if not answered and b"Password:" in out:
            time.sleep(0.2)
            os.write(fd, password.encode() + b"\n")
            answered = True
_, status = os.waitpid(pid, 0)
sys.stdout.write(out.decode(errors="replace"))
sys.exit(os.waitstatus_to_exitcode(status))
