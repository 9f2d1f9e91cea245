# Name lookups that every source of Debian's default nsswitch.conf answers with "not found",
# libnss_systemd last: it sizes its buffers with malloc_usable_size.
import grp
import pwd

missing = 0
for i in range(300):
    for lookup in (grp.getgrnam, pwd.getpwnam):
        try:
            lookup(f"tarnheap-unknown-{i}")
        except KeyError:
            missing += 1
print(missing, "names not found")
print(pwd.getpwuid(0).pw_name, grp.getgrgid(0).gr_name)
