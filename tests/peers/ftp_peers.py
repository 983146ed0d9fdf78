"""The FTP servers that the client is tried against: vsftpd for anonymous users, pure-ftpd for joe with the password "secret",
who sees the folder dir only."""
import os
import pwd
import sys

import peer

if os.getuid() != 0:
    print("the servers need root's rights")
    sys.exit(peer.SKIPPED)
_vsftpd, _pure_ftpd, _pure_pw, _openssl = peer.need("vsftpd", "pure-ftpd", "pure-pw", "openssl")

SERVANT = pwd.getpwnam("daemon")  # an account of every system, whose home is there
root = f"{peer.folder}/root"
os.makedirs(f"{root}/dir")
os.makedirs(f"{peer.folder}/empty")
os.chmod(peer.folder, 0o755)
os.chown(f"{root}/dir", SERVANT.pw_uid, -1)


def vsftpd(host, port):
    address = "listen=NO\nlisten_ipv6=YES\nlisten_address6" if ":" in host else "listen=YES\nlisten_address"
    return [_vsftpd, peer.write(f"vsftpd-{port}", f"""{address}={host}
listen_port={port}
background=NO
anonymous_enable=YES
anon_root={root}
ftp_username={SERVANT.pw_name}
nopriv_user={SERVANT.pw_name}
write_enable=YES
anon_upload_enable=YES
anon_mkdir_write_enable=YES
anon_other_write_enable=YES
anon_umask=022
secure_chroot_dir={peer.folder}/empty
seccomp_sandbox=NO
xferlog_enable=NO
""".encode())]


def pure_ftpd(host, port):
    secret = peer.run([_openssl, "passwd", "-1", "secret"]).decode().strip()  # pure-pw's own takes seconds to check
    accounts = peer.write("accounts", f"joe:{secret}:{SERVANT.pw_uid}:{SERVANT.pw_gid}::{root}/dir/./::::::::::::\n".encode())
    peer.run([_pure_pw, "mkdb", accounts + ".pdb", "-f", accounts])
    return [_pure_ftpd, "-S", f"{host},{port}", "-l", f"puredb:{accounts}.pdb", "-E", "-u", "1", "-H",
            "-g", f"{peer.folder}/pure.pid"]


def start(command, host="127.0.0.1"):
    port = peer.free_port(host=host)
    process = peer.start(command(host, port))
    peer.wait_for(lambda: peer.answers(port, host), "an FTP server")
    return process, port
