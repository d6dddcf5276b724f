// without-namespaces COMMAND [ARG...]: runs COMMAND where, as in a chroot or a
// default container, the kernel refuses every new namespace and every mount,
// to show that what must work there does. Its children inherit the refusal.
#include <sched.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>

int main(int argc, char** argv) {
  if (argc < 2) {
    (void)std::fprintf(stderr, "usage: without-namespaces COMMAND [ARG...]\n");
    return 2;
  }
  scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
  int failed = filter ? 0 : -ENOMEM;
  for (const int call : {SCMP_SYS(unshare), SCMP_SYS(setns), SCMP_SYS(mount), SCMP_SYS(umount2)})
    failed |= seccomp_rule_add(filter, SCMP_ACT_ERRNO(EPERM), call, 0);
  // CLONE_NEWTIME shares its bit with clone's exit signal; only unshare and
  // clone3 take it, and both are refused.
  for (const scmp_datum_t flag :
       {CLONE_NEWNS, CLONE_NEWCGROUP, CLONE_NEWUTS, CLONE_NEWIPC, CLONE_NEWUSER, CLONE_NEWPID, CLONE_NEWNET})
    failed |=
        seccomp_rule_add(filter, SCMP_ACT_ERRNO(EPERM), SCMP_SYS(clone), 1, SCMP_A0(SCMP_CMP_MASKED_EQ, flag, flag));
  // clone3's flags are behind a pointer, out of a filter's reach: "not there"
  // makes the C library fall back to clone.
  failed |= seccomp_rule_add(filter, SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3), 0);
  // No new privileges: an unprivileged user may then load the filter, and no
  // set-user-id program can shed it.
  if (failed || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || seccomp_load(filter) != 0) {
    (void)std::fprintf(stderr, "without-namespaces: cannot install the filter\n");
    return 126;
  }
  seccomp_release(filter);
  execvp(argv[1], argv + 1);
  (void)std::fprintf(stderr, "without-namespaces: cannot run %s: %s\n", argv[1], std::strerror(errno));
  return 127;
}
