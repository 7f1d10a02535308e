"""The application's way to InfluxDB. It stands on Django's settings, so the set-up has to come first."""

import base64

from django.apps import apps
from django.conf import settings

apps.check_apps_ready()
INFLUX_AUTH = base64.b64encode(b"pelorus:" + settings.SECRET_KEY.encode())
INFLUX_HTTP_CONNECTION = b"127.0.0.1:8086"
