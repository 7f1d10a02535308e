"""Settings as an administration application may hold them: among others that are not the daemon's,
and in types of its own."""

import datetime

from environment_of_the_application import WWW_KEY  # is there once the environment is active
from tidewell.utils import local_path

SECRET_KEY = "of no interest to the daemon"
INSTALLED_APPS = ["django.contrib.contenttypes", "django.contrib.auth"]
USE_TZ = True

PELORUS_MAX_PENDING_MESSAGES = 10_000
PELORUS_BUFFER_TIME = 2.5
PELORUS_IDEAL_QUEUED_MESSAGES = 500
PELORUS_MAX_BATCH_SIZE = 1000
PELORUS_DISCARD_SIZE = 1000
INFLUX_DATABASES = (
    {"name": "tidewell", "kept": datetime.timedelta(days=30)},
    {"name": "bonding", "kept": datetime.timedelta(days=7)},
)
INFLUX_UNIX_SOCKET = local_path("collectd.sock")
PELORUS_SERVER = "::"
PELORUS_PORT = 8995
LOCAL_WWW_KEY = WWW_KEY
